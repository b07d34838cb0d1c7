#ifndef RS485_LINE_CODES_H_
#define RS485_LINE_CODES_H_

#include <termios.h>

#include <chrono>

namespace rs485 {

/// A speed of the line.
struct BaudRate {
  int bits_per_second;
  speed_t termios_speed;
};

/// How a character stands on the line.
struct CharacterFormat {
  tcflag_t termios_flags;  // of c_cflag
  int bits;                // with start, parity and stop bits
};

/// The entry of a code of vlm_rs485.h; null for a code that does not exist.
const BaudRate* FindBaudRate(unsigned char code);
const CharacterFormat* FindCharacterFormat(unsigned char code);

/// Time of one character on the line.
std::chrono::nanoseconds CharacterTime(const BaudRate& rate, const CharacterFormat& format);

/// How long 3.5 characters of silence are above 19200 bits a second.
enum class FrameSilence {
  kGuide,       // 1.75 ms ("MODBUS over Serial Line V1.02", 2.5.1.1)
  kCharacters,  // 3.5 characters, as below
};

/// Silence that separates two frames: 3.5 characters.
std::chrono::nanoseconds InterFrameSilence(const BaudRate& rate, const CharacterFormat& format,
                                           FrameSilence silence);

/// Silence that ends an answer for which nothing else does: longer than the pauses with which a
/// port hands over what came without one. Never shorter than InterFrameSilence.
std::chrono::nanoseconds EndSilence(const BaudRate& rate, const CharacterFormat& format);

}  // namespace rs485

#endif  // RS485_LINE_CODES_H_
