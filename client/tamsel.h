/* The client side of the communication daemon, for C and every language that calls C: the records
 * that go over its socket, one exchange, Modbus frames for both transports, the serial library's
 * codes, words for statuses, and the health file. docs/protocol.md explains each field.
 *
 * Errors: a function that returns int gives 0 or more when it succeeded and one of TAMSEL_... below
 * 0 when it failed; tamsel_result_text has the words. Nothing is thrown, logged or printed, and no
 * signal is raised. Pointers must not be null unless that is said. Buffers are the caller's,
 * nothing is kept after the return, and there is nothing to set up or to free.
 *
 * Threads: every function may be called by any number of threads at once, each with records and
 * buffers of its own. Only tamsel_exchange and the functions that read the health file wait for
 * anything; the others only compute.
 */
#ifndef TAMSEL_H_
#define TAMSEL_H_

#include <stddef.h>
#include <stdint.h>

#include "tamsel_health.h"

#define TAMSEL_API __attribute__((visibility("default")))

/* Where the daemon listens unless its settings say otherwise. */
#define TAMSEL_DEFAULT_SOCKET_PATH "/mnt/system/tmscom/tamsel.com"

enum {
  TAMSEL_MAX_CHANNEL = 3,           /* channels are numbered 1 to 3 */
  TAMSEL_MAX_ADDRESS = 31,          /* device addresses are 1 to 31; entries in a record */
  TAMSEL_SEND_BUFFER_SIZE = 128,    /* two bytes of length, then the frame */
  TAMSEL_MAX_FRAME_LENGTH = 126,    /* longest frame to a device, in bytes */
  TAMSEL_RECEIVE_BUFFER_SIZE = 438, /* longest answer of a device, in bytes */
  TAMSEL_MAX_VALUES = 2040          /* most values that one Modbus answer can bring */
};

/* tamsel_data_header.type, and the transport of a frame. */
enum { TAMSEL_RS485 = 1, TAMSEL_TCPIP = 2 };

/* At the begin of tamsel_data_header.buffer, without a NUL: the request looks for devices, and the
 * health file does not count it. The exchange is the same with it and without. */
#define TAMSEL_SCAN_MARK "tamsel-scan-mark"

/* tamsel_receive_data.status: how the request as a whole ended. */
enum {
  TAMSEL_STATUS_OK = 0,
  TAMSEL_STATUS_TIMEOUT = 1,    /* reserved, never reported */
  TAMSEL_STATUS_NET_ERROR = 2,  /* reserved, never reported */
  TAMSEL_STATUS_SEND_ERROR = 3, /* reserved, never reported */
  TAMSEL_STATUS_READ_ERROR = 4, /* the daemon did not receive the whole payload */
  TAMSEL_STATUS_NOT_STARTED = 5,
  TAMSEL_STATUS_FLAGS_NOT_TAKEN = 6,
  TAMSEL_STATUS_FRAME_NOT_TAKEN = 7,
  TAMSEL_STATUS_NOT_OPENED = 8,
  TAMSEL_STATUS_BAD_CHANNEL = 9,
  TAMSEL_STATUS_BUSY = 10, /* another request is on the channel; ask again a little later */
  TAMSEL_STATUS_NO_ANSWERS = -1
};

/* Bits of tamsel_device_data.status over TCP/IP. On RS485 that is the receive status of the serial
 * library, vlm_rs485.h. 0 is no failure on both. */
enum {
  TAMSEL_DEVICE_CONNECT_FAILED = 4,
  TAMSEL_DEVICE_EXCEPTION = 8,
  TAMSEL_DEVICE_SEND_RECEIVE_FAILED = 16
};

/* What a function returns. */
enum {
  TAMSEL_OK = 0,
  /* An exchange; errno says more. */
  TAMSEL_NOT_REACHABLE = -1, /* no daemon listens at the path: wait until it runs */
  TAMSEL_TIMED_OUT = -2, /* the deadline passed; the daemon may still be busy with the request */
  TAMSEL_CLOSED = -3,    /* closed without an answer: refused, or the daemon ended */
  TAMSEL_SOCKET_FAILED = -4, /* the local socket failed */
  /* An argument; nothing was done. */
  TAMSEL_BAD_REQUEST = -10, /* size and type of the request do not go together */
  TAMSEL_BAD_ADDRESS = -11, /* a device address is not 1 to 31 */
  TAMSEL_ADDRESS_TAKEN = -12,
  TAMSEL_BAD_FRAME_LENGTH = -13,
  TAMSEL_BAD_IP_ADDRESS = -14,
  TAMSEL_BAD_PORT = -15,
  TAMSEL_BAD_TIMEOUT = -16,
  TAMSEL_BAD_VALUE = -17, /* a number or text that stands for nothing */
  /* A device's answer does not fit its frame. */
  TAMSEL_MODBUS_EXCEPTION = -20, /* it is the device's, who refuses */
  TAMSEL_WRONG_CHECK_SUM = -21,
  TAMSEL_OTHER_DEVICE = -22,
  TAMSEL_WRONG_ANSWER = -23,
  /* The health file. */
  TAMSEL_HEALTH_NOT_READ = -30, /* errno says why */
  TAMSEL_HEALTH_OTHER_FILE = -31,
  TAMSEL_HEALTH_OTHER_LAYOUT = -32,
  TAMSEL_HEALTH_NEVER = -33,   /* the daemon has had no exchange with the device */
  TAMSEL_HEALTH_DAMAGED = -34, /* no whole record there; a later try may find one */
  TAMSEL_NO_MEMORY = -40
};

/* ---- The records, exactly as they go over the socket: packed, little-endian. ---- */

#pragma pack(push, 1)

/* Starts every request and every response. In a response only `type` is set. */
typedef struct tamsel_data_header {
  int32_t data_length;      /* the client's own, not interpreted */
  char identifier[4];       /* the client's own, not interpreted */
  int32_t channel_index;    /* 1 to TAMSEL_MAX_CHANNEL */
  int32_t type;             /* TAMSEL_RS485 or TAMSEL_TCPIP */
  unsigned char priority;   /* the client's own, not interpreted */
  unsigned char buffer[47]; /* the client's own; only TAMSEL_SCAN_MARK means something */
} tamsel_data_header;

/* Serial parameters of one RS485 device, handed to the serial library unchanged. */
typedef struct tamsel_port_params {
  unsigned char address;  /* 1 to 31; 0: empty entry */
  unsigned char databits; /* tamsel_line_code */
  int16_t timeout;        /* ms */
  unsigned char delimitertype;
  unsigned char byte_after_delimiter;
  unsigned char com_wait_time;
} tamsel_port_params;

/* The frame for one device. */
typedef struct tamsel_send_data {
  unsigned char address; /* 1 to 31; 0: nothing is sent. The answer goes to slot address - 1 */
  /* Bytes 0 and 1: frame length, least significant byte first. From byte 2 on: the frame. */
  unsigned char send_data[TAMSEL_SEND_BUFFER_SIZE];
} tamsel_send_data;

/* Where one TCP/IP device is. */
typedef struct tamsel_network_params {
  unsigned char address; /* 1 to 31; 0: empty entry */
  char ip_address[18];   /* dotted IPv4 address, NUL-terminated; what inet_aton(3) reads */
  int32_t port;
  int32_t unit_id; /* carried, not used */
  int16_t timeout; /* ms, for the connect and for each send and receive; 0 or less: no limit */
} tamsel_network_params;

/* Payload of an RS485 request. */
typedef struct tamsel_rs485_access {
  int32_t channel;
  unsigned char baud_rate; /* tamsel_baud_code */
  tamsel_port_params port_params[TAMSEL_MAX_ADDRESS];
  tamsel_send_data send_data[TAMSEL_MAX_ADDRESS];
} tamsel_rs485_access;

/* Payload of a TCP/IP request. Entry i of port_params belongs with entry i of send_data. */
typedef struct tamsel_tcpip_access {
  int32_t channel; /* carried, not used */
  tamsel_network_params port_params[TAMSEL_MAX_ADDRESS];
  tamsel_send_data send_data[TAMSEL_MAX_ADDRESS];
} tamsel_tcpip_access;

/* One device's answer. Bytes of somebody else have a status, on RS485 5, and the length is 0: they
 * never stand in data. */
typedef struct tamsel_device_data {
  int16_t length;       /* bytes of the device's own answer in data; 0: there is none */
  unsigned char status; /* RS485: the serial library's receive status; TCP/IP: bits */
  unsigned char data[TAMSEL_RECEIVE_BUFFER_SIZE]; /* only the first `length` bytes mean anything */
} tamsel_device_data;

/* The answers of a request; the device with address a answers in receive_data[a - 1]. */
typedef struct tamsel_receive_data {
  int32_t status; /* TAMSEL_STATUS_... */
  tamsel_device_data receive_data[TAMSEL_MAX_ADDRESS];
} tamsel_receive_data;

/* The whole response. */
typedef struct tamsel_response {
  tamsel_data_header header;
  tamsel_receive_data receive_data;
} tamsel_response;

/* Whole requests. */
typedef struct tamsel_rs485_request {
  tamsel_data_header header;
  tamsel_rs485_access payload;
} tamsel_rs485_request;

typedef struct tamsel_tcpip_request {
  tamsel_data_header header;
  tamsel_tcpip_access payload;
} tamsel_tcpip_request;

#pragma pack(pop)

#ifdef __cplusplus
#define TAMSEL_ASSERT(condition) static_assert(condition, #condition)
#else
#define TAMSEL_ASSERT(condition) _Static_assert(condition, #condition)
#endif
TAMSEL_ASSERT(sizeof(tamsel_data_header) == 64);
TAMSEL_ASSERT(offsetof(tamsel_data_header, identifier) == 4);
TAMSEL_ASSERT(offsetof(tamsel_data_header, channel_index) == 8);
TAMSEL_ASSERT(offsetof(tamsel_data_header, type) == 12);
TAMSEL_ASSERT(offsetof(tamsel_data_header, priority) == 16);
TAMSEL_ASSERT(sizeof(tamsel_port_params) == 7);
TAMSEL_ASSERT(offsetof(tamsel_port_params, databits) == 1);
TAMSEL_ASSERT(offsetof(tamsel_port_params, timeout) == 2);
TAMSEL_ASSERT(offsetof(tamsel_port_params, delimitertype) == 4);
TAMSEL_ASSERT(offsetof(tamsel_port_params, byte_after_delimiter) == 5);
TAMSEL_ASSERT(offsetof(tamsel_port_params, com_wait_time) == 6);
TAMSEL_ASSERT(sizeof(tamsel_send_data) == 129);
TAMSEL_ASSERT(offsetof(tamsel_send_data, send_data) == 1);
TAMSEL_ASSERT(sizeof(tamsel_network_params) == 29);
TAMSEL_ASSERT(offsetof(tamsel_network_params, ip_address) == 1);
TAMSEL_ASSERT(offsetof(tamsel_network_params, port) == 19);
TAMSEL_ASSERT(offsetof(tamsel_network_params, unit_id) == 23);
TAMSEL_ASSERT(offsetof(tamsel_network_params, timeout) == 27);
TAMSEL_ASSERT(sizeof(tamsel_rs485_access) == 4221);
TAMSEL_ASSERT(offsetof(tamsel_rs485_access, port_params) == 5);
TAMSEL_ASSERT(offsetof(tamsel_rs485_access, send_data) == 222);
TAMSEL_ASSERT(sizeof(tamsel_tcpip_access) == 4902);
TAMSEL_ASSERT(offsetof(tamsel_tcpip_access, port_params) == 4);
TAMSEL_ASSERT(offsetof(tamsel_tcpip_access, send_data) == 903);
TAMSEL_ASSERT(sizeof(tamsel_device_data) == 441);
TAMSEL_ASSERT(offsetof(tamsel_device_data, data) == 3);
TAMSEL_ASSERT(sizeof(tamsel_receive_data) == 13675);
TAMSEL_ASSERT(offsetof(tamsel_receive_data, receive_data) == 4);
TAMSEL_ASSERT(sizeof(tamsel_response) == 13739);
TAMSEL_ASSERT(offsetof(tamsel_response, receive_data) == 64);
TAMSEL_ASSERT(sizeof(tamsel_rs485_request) == 4285);
TAMSEL_ASSERT(sizeof(tamsel_tcpip_request) == 4966);
TAMSEL_ASSERT(offsetof(tamsel_rs485_request, payload) == 64);
TAMSEL_ASSERT(offsetof(tamsel_tcpip_request, payload) == 64);
#undef TAMSEL_ASSERT

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Requests ---- */

/* Begins a request for `channel`, 1 to 3, without a device; all other bytes are zero. `baud_code`
 * is the serial library's, see tamsel_baud_code. */
TAMSEL_API void tamsel_begin_tcpip(tamsel_tcpip_request* request, int channel);
TAMSEL_API void tamsel_begin_rs485(tamsel_rs485_request* request, int channel,
                                   unsigned char baud_code);

/* Puts a device into the request. `address`, 1 to 31 and not in the request yet, chooses the slot
 * of its answer; `ip_address` is a dotted IPv4 address, `port` 1 to 65535, `frame` 1 to 126 bytes.
 * `timeout_ms`, 0 to 32767, bounds the connect and each send and receive; 0 is no limit. Returns 0,
 * or what is wrong; the request is then unchanged. */
TAMSEL_API int tamsel_add_tcpip_device(tamsel_tcpip_request* request, int address,
                                       const char* ip_address, int port, int timeout_ms,
                                       const unsigned char* frame, size_t frame_length);

/* The same over RS485. `port_params` carries the address and the serial library's parameters, which
 * are passed on as they are. The library that comes with the daemon takes frames of at most 64
 * bytes. A frame whose first byte is 0 is a broadcast, which nobody answers. */
TAMSEL_API int tamsel_add_rs485_device(tamsel_rs485_request* request,
                                       const tamsel_port_params* port_params,
                                       const unsigned char* frame, size_t frame_length);

/* ---- The exchange ---- */

/* Connects to the daemon, sends the request and receives the response, within `deadline_ms` on the
 * monotonic clock. While the daemon answers that the channel is busy, the exchange is repeated
 * every 50 ms for `busy_ms`, each with a deadline of its own; 0: never. `request` is a
 * tamsel_tcpip_request or a tamsel_rs485_request of `size` bytes; null for `socket_path` is
 * TAMSEL_DEFAULT_SOCKET_PATH.
 *
 * Returns 0 when there is a response: look at receive_data.status, which is TAMSEL_STATUS_BUSY when
 * the channel stayed busy. Otherwise TAMSEL_NOT_REACHABLE and so on, errno (0: nothing to add), and
 * a response of zeros. Blocks the calling thread. */
TAMSEL_API int tamsel_exchange(const char* socket_path, const void* request, size_t size,
                               int deadline_ms, int busy_ms, tamsel_response* response);

/* The slot of a device, within `response`; null when the address is not 1 to 31 or the slot's
 * length is not 0 to 438. Slots of devices that were not in the request mean nothing. */
TAMSEL_API const tamsel_device_data* tamsel_device_answer(const tamsel_response* response,
                                                          int address);

/* ---- Modbus frames; `transport` is TAMSEL_RS485 (address, PDU, CRC) or TAMSEL_TCPIP (MBAP header,
 * PDU) ---- */

/* Makes a frame that reads `count` registers, 1 to 125, from `start` on; `start` + `count` is at
 * most 65536. `function` is 3 (holding registers) or 4 (input registers), `unit` the device's
 * address on the bus, 1 to 247, or a unit identifier, 0 to 255. `transaction`, 0 to 65535, stands
 * in a TCP/IP frame and comes back in its answer. `frame` has room for TAMSEL_MAX_FRAME_LENGTH
 * bytes. Returns the length of the frame, or TAMSEL_BAD_VALUE. */
TAMSEL_API int tamsel_read_frame(int transport, int transaction, int unit, int function, int start,
                                 int count, unsigned char* frame);

/* Makes a frame that writes `count` registers (function 16) from `start` on: 1 to 56 over TCP/IP, 1
 * to 27 over RS485, where `unit` 0 writes to all devices of the bus. Otherwise as above. */
TAMSEL_API int tamsel_write_frame(int transport, int transaction, int unit, int start,
                                  const uint16_t* values, int count, unsigned char* frame);

/* What an answer says. */
typedef struct tamsel_answer {
  int exception; /* the device's exception code; 0: none */
  int count;     /* of values */
  uint16_t values[TAMSEL_MAX_VALUES];
} tamsel_answer;

/* Checks `answer` against the frame that it answers and takes the registers out of it when it is
 * one to function 3 or 4. Any bytes may be given. Returns 0, or TAMSEL_MODBUS_EXCEPTION (the code
 * is in `decoded`), TAMSEL_WRONG_CHECK_SUM, TAMSEL_OTHER_DEVICE or TAMSEL_WRONG_ANSWER, all without
 * values. To functions other than 3, 4 and 16 only address, transaction and check sum are
 * compared; a frame that is not Modbus says nothing of its answer. */
TAMSEL_API int tamsel_decode_answer(int transport, const unsigned char* frame, size_t frame_length,
                                    const unsigned char* answer, size_t answer_length,
                                    tamsel_answer* decoded);

/* CRC-16 of `length` bytes; goes behind an RTU frame low byte first. */
TAMSEL_API uint16_t tamsel_crc16(const unsigned char* bytes, size_t length);

/* ---- Codes of the serial library that comes with the daemon ---- */

/* Code of a speed in bits a second, 1200 to 921600, and of a line format, "8N1"; TAMSEL_BAD_VALUE
 * when there is none. */
TAMSEL_API int tamsel_baud_code(int bits_per_second);
TAMSEL_API int tamsel_line_code(const char* format);
/* Speed and format of a code, from 0 on without a gap; 0 and null behind the last one. */
TAMSEL_API int tamsel_baud_of_code(int code);
TAMSEL_API const char* tamsel_line_of_code(int code);

/* ---- Words ---- */

/* What a function that failed returned, in words; never null. */
TAMSEL_API const char* tamsel_result_text(int result);
/* The status of a request and of a device, in words, written to `text`, cut to `size` bytes with
 * their NUL; 96 are enough. Returns `text`. */
TAMSEL_API const char* tamsel_status_text(int request_status, char* text, size_t size);
TAMSEL_API const char* tamsel_device_status_text(int transport, int device_status, char* text,
                                                 size_t size);
/* A Modbus exception code in words, "illegal data address"; null for one that is not defined. */
TAMSEL_API const char* tamsel_exception_text(int exception);

/* ---- The health file ---- */

/* Reads what the daemon knows of one device; `transport` is TAMSEL_RS485 or TAMSEL_TCPIP. Holds up
 * neither the daemon nor another reader. Returns 0, or TAMSEL_BAD_VALUE or a TAMSEL_HEALTH_...;
 * `device` is then all zero. */
TAMSEL_API int tamsel_health_read_device(const char* path, int channel, int transport, int address,
                                         tamsel_health_device* device);
/* How an exchange ended, a tamsel_health_cause, in words, "no answer in time"; null for one that is
 * not known. */
TAMSEL_API const char* tamsel_health_cause_text(int cause);

#ifdef __cplusplus
}
#endif

#endif /* TAMSEL_H_ */
