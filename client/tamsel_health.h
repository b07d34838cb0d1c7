/* The health file: what the daemon knows of each device, channel and of itself, in one file of
 * fixed layout that any program may read at any time. docs/health.md shows it byte by byte and says
 * how to read it.
 *
 * The file is a header, one process record, a record for each channel and one for each channel,
 * transport and device address. Integers are little-endian; times are milliseconds since 1970 UTC,
 * 0 for never. Counters count on over restarts of the daemon and begin again at 0 after 2^32 - 1.
 *
 * The daemon writes a record as a whole and asks no reader. A reader that meets a record half
 * written sees that by its check sum and reads it again. A record of zeros was never written.
 */
#ifndef TAMSEL_HEALTH_H_
#define TAMSEL_HEALTH_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#define TAMSEL_HEALTH_MAGIC "TMSHLTH" /* with its NUL the 8 bytes at the start of the file */

enum {
  TAMSEL_HEALTH_VERSION = 1,
  TAMSEL_HEALTH_BYTE_ORDER = 0x01020304,
  TAMSEL_HEALTH_STALE_MS = 30000, /* a daemon that has not renewed its record for so long is gone */
  TAMSEL_HEALTH_UNASKED_MS = 600000, /* see tamsel_health_is_asked */
  TAMSEL_HEALTH_CHANNELS = 3,
  TAMSEL_HEALTH_TRANSPORTS = 2,
  TAMSEL_HEALTH_ADDRESSES = 31,
  TAMSEL_HEALTH_DEVICES =
      TAMSEL_HEALTH_CHANNELS * TAMSEL_HEALTH_TRANSPORTS * TAMSEL_HEALTH_ADDRESSES,
  TAMSEL_HEALTH_HOURS = 48,
  TAMSEL_HEALTH_CAUSES = 32,
  TAMSEL_HEALTH_STATUSES = 16
};

/* tamsel_health_device.transport; the request types of the wire records. */
enum { TAMSEL_HEALTH_RS485 = 1, TAMSEL_HEALTH_TCPIP = 2 };

/* How an exchange with a device ended. `detail` is what the record's last_detail then holds; on
 * RS485 it is, unless said otherwise, the status that the serial library gave for the device. */
enum tamsel_health_cause {
  TAMSEL_CAUSE_NONE = 0,
  TAMSEL_CAUSE_ANSWERED = 1,
  TAMSEL_CAUSE_SENT = 2,              /* a broadcast, which nobody answers */
  TAMSEL_CAUSE_NO_ANSWER = 3,         /* nothing came in time */
  TAMSEL_CAUSE_CONNECT_REFUSED = 4,   /* TCP/IP: the host is there, nothing listens at the port */
  TAMSEL_CAUSE_CONNECT_TIMED_OUT = 5, /* TCP/IP: nobody answered the connect */
  TAMSEL_CAUSE_UNREACHABLE = 6,       /* TCP/IP: no way to the host; detail: errno */
  TAMSEL_CAUSE_NO_DESCRIPTOR = 7,     /* TCP/IP: the daemon has no descriptor left */
  TAMSEL_CAUSE_CONNECT_FAILED = 8,    /* TCP/IP: otherwise; detail: errno or, below 0, the stage */
  TAMSEL_CAUSE_CONNECTION_IN_USE = 9, /* TCP/IP: another exchange kept the connection too long */
  TAMSEL_CAUSE_NOT_TAKEN = 10,        /* TCP/IP: the request was not taken; detail: errno or 0 */
  TAMSEL_CAUSE_RESET = 11,            /* TCP/IP: the device reset the connection */
  TAMSEL_CAUSE_CLOSED = 12,           /* TCP/IP: it closed the connection without an answer */
  TAMSEL_CAUSE_CUT_SHORT = 13,        /* TCP/IP: an answer began and did not end; detail: bytes */
  TAMSEL_CAUSE_TOO_LONG = 14,         /* the answer is too long; detail: bytes, when known */
  TAMSEL_CAUSE_NOT_ITS_ANSWER = 15,   /* what came was somebody else's */
  TAMSEL_CAUSE_LINE_ERROR = 16,       /* RS485: parity or framing error, or break */
  TAMSEL_CAUSE_PORT_GONE = 17,        /* RS485: the serial device went away and is not back */
  TAMSEL_CAUSE_PORT_NOT_OPENED = 18,  /* RS485: the serial port cannot be opened; detail: errno */
  TAMSEL_CAUSE_NOT_STARTED = 19,      /* RS485: the library took not all; detail: request status */
  TAMSEL_CAUSE_OTHER_STATUS = 20,     /* RS485: detail: a status of the board's own library */
  TAMSEL_CAUSE_BAD_FRAME_LENGTH = 21, /* refused: the length of the frame; detail: the length */
  TAMSEL_CAUSE_BAD_IP_ADDRESS = 22,   /* refused: the text is no IPv4 address */
  TAMSEL_CAUSE_BAD_PORT = 23,         /* refused: no TCP port; detail: the number */
  TAMSEL_CAUSE_DAEMON_FAILURE = 24,   /* the daemon itself failed, most likely for want of memory */
  /* What came as an answer says itself that the device gave none. */
  TAMSEL_CAUSE_GATEWAY_NO_ANSWER = 25, /* a gateway's exception, 10 or 11; detail: its code */
  TAMSEL_CAUSE_WRONG_CHECK_SUM = 26,   /* RS485, Modbus RTU: damaged on its way */
  TAMSEL_CAUSES_KNOWN = 27             /* later ones are appended */
};

/* tamsel_health_process.power. */
enum { TAMSEL_POWER_ON = 0, TAMSEL_POWER_OUTAGE = 1, TAMSEL_POWER_OFF = 2 };

typedef struct tamsel_health_header {
  char magic[8];       /* TAMSEL_HEALTH_MAGIC */
  uint32_t version;    /* TAMSEL_HEALTH_VERSION; another version is another layout */
  uint32_t byte_order; /* TAMSEL_HEALTH_BYTE_ORDER */
  uint32_t file_size;  /* bytes; also sizeof(tamsel_health_file) */
  uint32_t reserved[11];
} tamsel_health_header;

typedef struct tamsel_health_process {
  uint32_t checksum;
  uint32_t pid;
  char version[32];           /* of the daemon, ends with NUL */
  int64_t started_ms;         /* this process */
  int64_t updated_ms;         /* renewed every 10 s as long as the daemon runs */
  int64_t stopped_ms;         /* 0 while it runs, and when it was killed */
  int64_t card_gone_since_ms; /* or full, or read-only; 0: log lines reach it */
  uint32_t starts;            /* of the daemon since the file was begun; restarts and one */
  uint32_t descriptors_in_use;
  uint32_t descriptor_limit;
  uint32_t power;          /* TAMSEL_POWER_... */
  uint64_t log_lines_lost; /* of this process: the card never got them */
  uint32_t reserved[10];
} tamsel_health_process;

typedef struct tamsel_health_channel {
  uint32_t checksum;
  uint32_t channel;       /* 1 to 3 */
  uint32_t requests;      /* served, busy refusals not among them */
  uint32_t busy_refusals; /* answered at once with status 10 */
  uint32_t unanswered;    /* of the requests: closed without a response */
  uint32_t longest_ms;    /* longest request, from its header to its response */
  int64_t longest_at_ms;
  int64_t last_request_ms;
  uint32_t statuses[TAMSEL_HEALTH_STATUSES]; /* requests by their status; index status + 1 */
  uint32_t cycles;                           /* RS485 cycles; times in microseconds */
  uint32_t cycle_last_us;
  uint32_t cycle_least_us;
  uint32_t cycle_most_us;
  uint64_t cycle_total_us;
  uint32_t reserved[8];
} tamsel_health_channel;

typedef struct tamsel_health_hour {
  uint16_t answered; /* each stays at 65535 once it is there */
  uint16_t failed;
} tamsel_health_hour;

typedef struct tamsel_health_device {
  uint32_t checksum;
  uint8_t channel;    /* 1 to 3 */
  uint8_t transport;  /* TAMSEL_HEALTH_RS485 or TAMSEL_HEALTH_TCPIP */
  uint8_t address;    /* 1 to 31 */
  uint8_t last_cause; /* how the last exchange ended */
  int32_t last_detail;
  uint32_t failures_in_a_row;
  int64_t first_ms; /* first exchange */
  int64_t last_ms;  /* end of the last exchange */
  int64_t last_answer_ms;
  int64_t
      failing_since_ms; /* end of the first exchange that failed since the last answer; 0: none */
  /* From the last byte of the request to the last byte of the answer, in microseconds; over
   * TCP/IP only, on RS485 the serial library keeps it to itself. */
  uint64_t response_total_us;
  uint32_t response_count;
  uint32_t response_last_us;
  uint32_t response_least_us;
  uint32_t response_most_us;
  /* Where the device was in the last exchange. */
  char ip_address[16]; /* TCP/IP: ends with NUL; empty on RS485 */
  uint32_t port;       /* TCP/IP: the TCP port; RS485: the serial library's code of the speed */
  uint32_t line;       /* RS485: the serial library's code of data bits, parity and stop bits */
  uint32_t exchanges;
  uint32_t
      newest_hour; /* hours since 1970 UTC of the newest cell, which is hours[newest_hour % 48] */
  uint32_t ends[TAMSEL_HEALTH_CAUSES];           /* exchanges by their cause */
  tamsel_health_hour hours[TAMSEL_HEALTH_HOURS]; /* cell of hour h: h % 48 */
  /* The longest time that usually lies between two exchanges, in ms; 0: there were no two in one
   * life of a daemon, or in none of 1.0.0. */
  uint32_t interval_ms;
  uint32_t reserved[21];
} tamsel_health_device;

typedef struct tamsel_health_file {
  tamsel_health_header header;
  tamsel_health_process process;
  tamsel_health_channel channels[TAMSEL_HEALTH_CHANNELS]; /* index channel - 1 */
  uint32_t reserved[86];
  /* Index: tamsel_health_device_index. No record crosses a page, so none is cut by a kill. */
  tamsel_health_device devices[TAMSEL_HEALTH_DEVICES];
} tamsel_health_file;

/* Whether an exchange that ended with `cause` counts as answered. */
static inline int tamsel_health_is_answered(int cause) {
  return cause == TAMSEL_CAUSE_ANSWERED || cause == TAMSEL_CAUSE_SENT;
}

/* After how long without an exchange a device counts as no longer asked, in ms. */
static inline int64_t tamsel_health_asked_limit_ms(const tamsel_health_device* device) {
  const int64_t least_ms = TAMSEL_HEALTH_UNASKED_MS;
  const int64_t usual_ms = 10 * (int64_t)device->interval_ms;
  return usual_ms > least_ms ? usual_ms : least_ms;
}

/* Whether a device is still asked: if not, its last exchange says nothing about now. Time without a
 * daemon does not count. `now_ms` is now while the daemon runs, else when it was last seen. */
static inline int tamsel_health_is_asked(const tamsel_health_device* device,
                                         const tamsel_health_process* process, int64_t now_ms) {
  int64_t since_ms = 0;
  since_ms = device->last_ms > since_ms ? device->last_ms : since_ms;
  since_ms = process->started_ms > since_ms ? process->started_ms : since_ms;
  return now_ms - since_ms <= tamsel_health_asked_limit_ms(device);
}

/* Where the record of a device stands. `channel`, `transport` and `address` count from 1. */
static inline size_t tamsel_health_device_index(int channel, int transport, int address) {
  return (size_t)(((channel - 1) * TAMSEL_HEALTH_TRANSPORTS + transport - 1) *
                      TAMSEL_HEALTH_ADDRESSES +
                  address - 1);
}

/* The check sum of a record of `size` bytes: FNV-1a over its 32-bit words but the first. */
static inline uint32_t tamsel_health_checksum(const void* record, size_t size) {
  uint32_t sum = 2166136261u;
  size_t offset = sizeof(uint32_t);
  for (; offset < size; offset += sizeof(uint32_t)) {
    uint32_t word = 0;
    memcpy(&word, (const unsigned char*)record + offset, sizeof(word));
    sum = (sum ^ word) * 16777619u;
  }
  return sum;
}

/* Whether a record of `size` bytes is as the daemon wrote it. One that was never written is not. */
static inline int tamsel_health_is_whole(const void* record, size_t size) {
  uint32_t checksum = 0;
  memcpy(&checksum, record, sizeof(checksum));
  return checksum == tamsel_health_checksum(record, size);
}

#ifdef __cplusplus
#define TAMSEL_HEALTH_ASSERT(condition) static_assert(condition, #condition)
#else
#define TAMSEL_HEALTH_ASSERT(condition) _Static_assert(condition, #condition)
#endif
TAMSEL_HEALTH_ASSERT(sizeof(tamsel_health_header) == 64);
TAMSEL_HEALTH_ASSERT(sizeof(tamsel_health_process) == 136);
TAMSEL_HEALTH_ASSERT(offsetof(tamsel_health_process, started_ms) == 40);
TAMSEL_HEALTH_ASSERT(offsetof(tamsel_health_process, log_lines_lost) == 88);
TAMSEL_HEALTH_ASSERT(sizeof(tamsel_health_channel) == 160);
TAMSEL_HEALTH_ASSERT(offsetof(tamsel_health_channel, longest_at_ms) == 24);
TAMSEL_HEALTH_ASSERT(offsetof(tamsel_health_channel, cycle_total_us) == 120);
TAMSEL_HEALTH_ASSERT(sizeof(tamsel_health_device) == 512);
TAMSEL_HEALTH_ASSERT(offsetof(tamsel_health_device, first_ms) == 16);
TAMSEL_HEALTH_ASSERT(offsetof(tamsel_health_device, response_total_us) == 48);
TAMSEL_HEALTH_ASSERT(offsetof(tamsel_health_device, ends) == 104);
TAMSEL_HEALTH_ASSERT(offsetof(tamsel_health_device, hours) == 232);
TAMSEL_HEALTH_ASSERT(offsetof(tamsel_health_device, interval_ms) == 424);
TAMSEL_HEALTH_ASSERT(offsetof(tamsel_health_file, process) == 64);
TAMSEL_HEALTH_ASSERT(offsetof(tamsel_health_file, channels) == 200);
TAMSEL_HEALTH_ASSERT(offsetof(tamsel_health_file, devices) == 1024);
TAMSEL_HEALTH_ASSERT(sizeof(tamsel_health_file) == 96256);
#undef TAMSEL_HEALTH_ASSERT

#endif /* TAMSEL_HEALTH_H_ */
