/* Reads holding registers 0 to 3 of a TCP/IP device and of an RS485 device and prints them.
 *
 *   read_registers SOCKET IP PORT
 *
 * The TCP/IP device is asked on channel 3; the RS485 device is number 2 on channel 1, at 19200 bits
 * a second, 8N1. Ends with 1 when one of them gave no registers.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tamsel/tamsel.h>

enum { ADDRESS = 2, START = 0, COUNT = 4, HOLDING_REGISTERS = 3, TIMEOUT_MS = 500 };
/* Above all that the daemon may take for one device with this time-out. */
enum { DEADLINE_MS = 10000, BUSY_MS = 5000 };

static int complain(const char* name, const char* text) {
  fprintf(stderr, "%s: %s\n", name, text);
  return EXIT_FAILURE;
}

/* Prints the registers in the answer to `frame`. */
static int print_answer(const char* name, int transport, const tamsel_response* response,
                        const unsigned char* frame, size_t frame_length) {
  char text[96];
  tamsel_answer answer;
  int result, index;
  const int status = response->receive_data.status;
  const tamsel_device_data* device = tamsel_device_answer(response, ADDRESS);
  if (status != TAMSEL_STATUS_OK) {
    return complain(name, tamsel_status_text(status, text, sizeof(text)));
  }
  if (device == NULL || device->status != 0) {
    return complain(name, device == NULL ? "broken response"
                                         : tamsel_device_status_text(transport, device->status,
                                                                     text, sizeof(text)));
  }
  result = tamsel_decode_answer(transport, frame, frame_length, device->data,
                                (size_t)device->length, &answer);
  if (result == TAMSEL_MODBUS_EXCEPTION && tamsel_exception_text(answer.exception) != NULL) {
    return complain(name, tamsel_exception_text(answer.exception));
  }
  if (result < 0) {
    return complain(name, tamsel_result_text(result));
  }
  printf("%s:", name);
  for (index = 0; index < answer.count; ++index) {
    printf(" %d", answer.values[index]);
  }
  printf("\n");
  return EXIT_SUCCESS;
}

/* Sends the request and prints the registers of its one device; `result` is that of building it. */
static int exchange(const char* name, int transport, const char* socket_path, int result,
                    const void* request, size_t size, const unsigned char* frame,
                    size_t frame_length) {
  tamsel_response response;
  if (result >= 0) {
    result = tamsel_exchange(socket_path, request, size, DEADLINE_MS, BUSY_MS, &response);
  }
  return result < 0 ? complain(name, tamsel_result_text(result))
                    : print_answer(name, transport, &response, frame, frame_length);
}

static int read_tcpip(const char* socket_path, const char* ip_address, int port) {
  unsigned char frame[TAMSEL_MAX_FRAME_LENGTH];
  tamsel_tcpip_request request;
  const int length =
      tamsel_read_frame(TAMSEL_TCPIP, 1, ADDRESS, HOLDING_REGISTERS, START, COUNT, frame);
  int result = length;
  tamsel_begin_tcpip(&request, 3);
  if (result >= 0) {
    result = tamsel_add_tcpip_device(&request, ADDRESS, ip_address, port, TIMEOUT_MS, frame,
                                     (size_t)length);
  }
  return exchange("TCP/IP", TAMSEL_TCPIP, socket_path, result, &request, sizeof(request), frame,
                  (size_t)length);
}

static int read_rs485(const char* socket_path) {
  unsigned char frame[TAMSEL_MAX_FRAME_LENGTH];
  tamsel_rs485_request request;
  tamsel_port_params line;
  const int length =
      tamsel_read_frame(TAMSEL_RS485, 0, ADDRESS, HOLDING_REGISTERS, START, COUNT, frame);
  int result = length;
  memset(&line, 0, sizeof(line));
  line.address = ADDRESS;
  line.databits = (unsigned char)tamsel_line_code("8N1");
  line.timeout = TIMEOUT_MS;
  tamsel_begin_rs485(&request, 1, (unsigned char)tamsel_baud_code(19200));
  if (result >= 0) {
    result = tamsel_add_rs485_device(&request, &line, frame, (size_t)length);
  }
  return exchange("RS485", TAMSEL_RS485, socket_path, result, &request, sizeof(request), frame,
                  (size_t)length);
}

int main(int argc, char** argv) {
  int tcpip, rs485;
  if (argc != 4) {
    return complain(argv[0], "usage: read_registers SOCKET IP PORT");
  }
  tcpip = read_tcpip(argv[1], argv[2], atoi(argv[3]));
  rs485 = read_rs485(argv[1]);
  return tcpip == EXIT_SUCCESS ? rs485 : tcpip;
}
