/// The serial-port library of the board's three RS485 channels: opens a port, takes the frame for
/// each device, runs one communication cycle over all of them and hands out the answers.
///
/// C linkage, so that a board's own library takes this one's place by the library path alone. The
/// codes and statuses named below are this library's; README.md beside this file tables them.
///
/// Threads: any. Calls for one channel wait for each other, channels do not. vlm_rs485_close ends a
/// cycle in progress on its channel.
#ifndef VLM_RS485_H_
#define VLM_RS485_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#else
#include <stdbool.h>
#endif

enum {
  MAX_CHANNEL = 3,              /* channels are numbered 1 to 3 */
  RS485_MAX_MC_NUM = 31,        /* device addresses are 1 to 31 */
  MAX_XFER_DATA_LENGTH = 64,    /* longest frame to a device, in bytes */
  MAX_RECEIVE_DATA_LENGTH = 436 /* longest answer, in bytes */
};

/* Baud-rate codes, the third argument of vlm_rs485_open, in bits a second. */
enum {
  VLM_RS485_BAUD_1200 = 0,
  VLM_RS485_BAUD_2400 = 1,
  VLM_RS485_BAUD_4800 = 2,
  VLM_RS485_BAUD_9600 = 3,
  VLM_RS485_BAUD_19200 = 4,
  VLM_RS485_BAUD_38400 = 5,
  VLM_RS485_BAUD_57600 = 6,
  VLM_RS485_BAUD_115200 = 7,
  VLM_RS485_BAUD_230400 = 8,
  VLM_RS485_BAUD_460800 = 9,
  VLM_RS485_BAUD_921600 = 10
};

/* Codes of data bits, parity (None, Even, Odd) and stop bits. */
enum {
  VLM_RS485_8N1 = 0,
  VLM_RS485_8E1 = 1,
  VLM_RS485_8O1 = 2,
  VLM_RS485_8N2 = 3,
  VLM_RS485_8E2 = 4,
  VLM_RS485_8O2 = 5,
  VLM_RS485_7N1 = 6,
  VLM_RS485_7E1 = 7,
  VLM_RS485_7O1 = 8,
  VLM_RS485_7N2 = 9,
  VLM_RS485_7E2 = 10,
  VLM_RS485_7O2 = 11
};

/* Receive status of one device, receive_data.rcv_status. */
enum {
  VLM_RS485_ANSWERED = 0,      /* also: sent, for a broadcast */
  VLM_RS485_NO_ANSWER = 1,     /* no complete answer in the device's time-out */
  VLM_RS485_LINE_ERROR = 2,    /* parity or framing error, or break, within the answer; or the line
                                  was never silent */
  VLM_RS485_TOO_LONG = 3,      /* more than MAX_RECEIVE_DATA_LENGTH bytes without an end */
  VLM_RS485_PORT_GONE = 4,     /* the serial device is gone, or the port was closed meanwhile */
  VLM_RS485_NOT_ITS_ANSWER = 5 /* bytes came in the time-out, none of them of this device's answer:
                                  noise, another device or a second master, or the device's own
                                  answer to an earlier read */
};

/* A frame for a device. */
typedef struct xfer_data {
  uint16_t xfr_da_len; /* bytes */
  unsigned char* xfr_da;
} xfer_data;

/* What a device answered. */
typedef struct receive_data {
  uint16_t rcv_da_len; /* bytes; 0 unless the status is ANSWERED */
  uint8_t rcv_status;
  unsigned char* rcv_da; /* the answer */
} receive_data;

/* The answers of a cycle. */
typedef struct receive_data_full {
  receive_data* rcv_dt[RS485_MAX_MC_NUM]; /* index address - 1; null: not in the cycle */
} receive_data_full;

/* Opens the serial device of a channel, the one that the environment variable RS485_PORT_n names,
 * by default /dev/ttyRS485-n; RS485_ECHO_n=1 says that it echoes. Returns 0, or -1 with errno set:
 * EINVAL for a channel or a code that does not exist, ENOTSUP for sniffer (listening only), or what
 * the system said. An open port is opened anew. */
int vlm_rs485_open(int channel, bool sniffer, unsigned char baud_rate);

/* Closes a channel's port and ends a cycle in progress on it. Returns 0, or -1 with errno EINVAL
 * for a channel that does not exist. A port that is not open is no error. */
int vlm_rs485_close(int channel);

/* Parameters of one device, kept until they are set again. `timeout` ms, from the end of the frame
 * to the end of the answer; 0 or less: no answer is waited for. `delimitertype` 0: an answer ends
 * as a Modbus RTU frame or with silence on the line, `byte_after_delimiter` ms of it but never less
 * than 3.5 characters, or, when that is 0, longer than a UART or an adapter pauses within a frame,
 * and 100 ms where a Modbus RTU frame has begun that is shorter than its own length;
 * any other value is the byte that ends an answer, followed by `byte_after_delimiter` further
 * bytes. `com_wait_time` ms of silence before the device is addressed. Returns 0, or -1 with errno
 * EINVAL. */
int vlm_rs485_setPortParams(int channel, unsigned char address, unsigned char databits,
                            short timeout, unsigned char delimitertype,
                            unsigned char byte_after_delimiter, unsigned char com_wait_time);

/* Sets, or removes, the function that vlm_rs485_startCom calls at the end of a cycle, on its own
 * thread. Return 0, or -1 with errno EINVAL. */
int vlm_rs485_addEventListener(int channel, void (*listener)());
int vlm_rs485_removeEventListener(int channel);

/* Takes, copied, the frame for a device in the next cycle. Returns 1, or 0 when the port is not
 * open or the frame is empty or longer than MAX_XFER_DATA_LENGTH. */
unsigned char vlm_rs485_putOutputStream(int channel, unsigned char address, xfer_data* data);

/* Says which devices the next cycle serves: bit address - 1. Returns 1, or 0 when the port is not
 * open or a bit above the 31st is set. */
unsigned char vlm_rs485_setComFlags(int channel, unsigned int flags);

/* Runs one cycle: each flagged device with a frame, in order of address, is sent its frame and,
 * unless the frame's first byte is 0 (broadcast), listened to until its answer ends or its time-out
 * has passed. The calling thread has a timer slack of 1 ns from then on (prctl(2)). Returns 1 when
 * the cycle is over, whatever the devices did, and 0 with errno set: EBADF when the port is not
 * open, or what the system said to the try to open its serial device again, which had gone (ENOENT,
 * ENODEV, ENXIO, EIO: it is not back). */
unsigned char vlm_rs485_startCom(int channel);

/* The answers of the last cycle, the library's own and valid until the channel's next call of
 * startCom or open; the second argument has no meaning. Null when there was no cycle since the port
 * was opened. */
receive_data_full* vlm_rs485_getReceiveStream(int channel, int reserved);

#ifdef __cplusplus
}
#endif

#endif /* VLM_RS485_H_ */
