#include "line_codes.h"

#include <algorithm>

#include "vlm_rs485.h"

namespace rs485 {

namespace {

// Indexed by the codes of vlm_rs485.h.
constexpr BaudRate kBaudRates[] = {
    {1200, B1200},     {2400, B2400},     {4800, B4800},     {9600, B9600},
    {19200, B19200},   {38400, B38400},   {57600, B57600},   {115200, B115200},
    {230400, B230400}, {460800, B460800}, {921600, B921600},
};
static_assert(sizeof(kBaudRates) / sizeof(kBaudRates[0]) == VLM_RS485_BAUD_921600 + 1);

constexpr CharacterFormat kFormats[] = {
    {CS8, 10},          {CS8 | PARENB, 11},          {CS8 | PARENB | PARODD, 11},
    {CS8 | CSTOPB, 11}, {CS8 | PARENB | CSTOPB, 12}, {CS8 | PARENB | PARODD | CSTOPB, 12},
    {CS7, 9},           {CS7 | PARENB, 10},          {CS7 | PARENB | PARODD, 10},
    {CS7 | CSTOPB, 10}, {CS7 | PARENB | CSTOPB, 11}, {CS7 | PARENB | PARODD | CSTOPB, 11},
};
static_assert(sizeof(kFormats) / sizeof(kFormats[0]) == VLM_RS485_7O2 + 1);

constexpr int kFixedSilenceAbove = 19200;
constexpr std::chrono::microseconds kFixedSilence{1750};

// A 16550 UART hands over a block when its FIFO of 16 is filled to the trigger level, and what is
// left over when nothing came for 4 more characters.
constexpr int kFifoBlockCharacters = 16 + 4;
// A USB adapter hands over a packet every 16 ms, and the bus and the scheduler add to it.
constexpr std::chrono::milliseconds kAdapterPacket{16 + 4};

template <typename Entry, int count>
const Entry* Find(const Entry (&table)[count], unsigned char code) {
  return code < count ? &table[code] : nullptr;
}

}  // namespace

const BaudRate* FindBaudRate(unsigned char code) {
  return Find(kBaudRates, code);
}

const CharacterFormat* FindCharacterFormat(unsigned char code) {
  return Find(kFormats, code);
}

std::chrono::nanoseconds CharacterTime(const BaudRate& rate, const CharacterFormat& format) {
  return std::chrono::nanoseconds(std::chrono::seconds(format.bits)) / rate.bits_per_second;
}

std::chrono::nanoseconds InterFrameSilence(const BaudRate& rate, const CharacterFormat& format,
                                           FrameSilence silence) {
  const bool is_fixed =
      silence == FrameSilence::kGuide && rate.bits_per_second > kFixedSilenceAbove;
  return is_fixed ? std::chrono::nanoseconds(kFixedSilence) : CharacterTime(rate, format) * 7 / 2;
}

std::chrono::nanoseconds EndSilence(const BaudRate& rate, const CharacterFormat& format) {
  return std::max<std::chrono::nanoseconds>(CharacterTime(rate, format) * kFifoBlockCharacters,
                                            kAdapterPacket);
}

}  // namespace rs485
