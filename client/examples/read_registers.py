#!/usr/bin/env python3
"""Reads holding registers 0 to 3 of a TCP/IP device and of an RS485 device and prints them.

    read_registers.py SOCKET IP PORT

The TCP/IP device is asked on channel 3; the RS485 device is number 2 on channel 1, at 19200 bits a
second, 8N1. Ends with 1 when one of them gave no registers. Needs the shared library only.
"""
import ctypes
import sys

ADDRESS, START, COUNT, HOLDING_REGISTERS, TIMEOUT_MS = 2, 0, 4, 3, 500
DEADLINE_MS, BUSY_MS = 10000, 5000  # the first above all that one device may take
RS485, TCPIP = 1, 2
REQUEST_SIZE = {RS485: 4285, TCPIP: 4966}
RESPONSE_SIZE, STATUS_AT, MAX_FRAME_LENGTH, MAX_VALUES = 13739, 64, 126, 2040


class PortParams(ctypes.LittleEndianStructure):
    _pack_ = 1
    _fields_ = [("address", ctypes.c_uint8), ("databits", ctypes.c_uint8),
                ("timeout", ctypes.c_int16), ("delimitertype", ctypes.c_uint8),
                ("byte_after_delimiter", ctypes.c_uint8), ("com_wait_time", ctypes.c_uint8)]


class DeviceData(ctypes.LittleEndianStructure):
    _pack_ = 1
    _fields_ = [("length", ctypes.c_int16), ("status", ctypes.c_uint8),
                ("data", ctypes.c_uint8 * 438)]


class Answer(ctypes.Structure):
    _fields_ = [("exception", ctypes.c_int), ("count", ctypes.c_int),
                ("values", ctypes.c_uint16 * MAX_VALUES)]


client = ctypes.CDLL("libtamsel_client.so.1")
client.tamsel_add_tcpip_device.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_char_p,
                                           ctypes.c_int, ctypes.c_int, ctypes.c_char_p,
                                           ctypes.c_size_t]
client.tamsel_add_rs485_device.argtypes = [ctypes.c_void_p, ctypes.POINTER(PortParams),
                                           ctypes.c_char_p, ctypes.c_size_t]
client.tamsel_exchange.argtypes = [ctypes.c_char_p, ctypes.c_void_p, ctypes.c_size_t, ctypes.c_int,
                                   ctypes.c_int, ctypes.c_void_p]
client.tamsel_decode_answer.argtypes = [ctypes.c_int, ctypes.c_char_p, ctypes.c_size_t,
                                        ctypes.c_void_p, ctypes.c_size_t, ctypes.POINTER(Answer)]
client.tamsel_device_answer.restype = ctypes.POINTER(DeviceData)
for words in ("tamsel_result_text", "tamsel_status_text", "tamsel_device_status_text"):
    getattr(client, words).restype = ctypes.c_char_p


class Failure(Exception):
    pass


def check(result):
    """Gives a result back, or raises what went wrong."""
    if result < 0:
        raise Failure(client.tamsel_result_text(result).decode())
    return result


def status_text(function, *status):
    text = ctypes.create_string_buffer(96)
    return function(*status, text, ctypes.c_size_t(len(text))).decode()


def read_frame(transport):
    frame = ctypes.create_string_buffer(MAX_FRAME_LENGTH)
    length = check(client.tamsel_read_frame(transport, 1, ADDRESS, HOLDING_REGISTERS, START, COUNT,
                                            frame))
    return frame.raw[:length]


def read_registers(transport, socket_path, request, frame):
    """The registers of the one device in the request, whose frame it was."""
    response = ctypes.create_string_buffer(RESPONSE_SIZE)
    check(client.tamsel_exchange(socket_path.encode(), request, len(request), DEADLINE_MS, BUSY_MS,
                                 response))
    status = ctypes.c_int32.from_buffer(response, STATUS_AT).value
    if status != 0:
        raise Failure(status_text(client.tamsel_status_text, status))
    device = client.tamsel_device_answer(response, ADDRESS)
    if not device:
        raise Failure("broken response")
    if device[0].status != 0:
        raise Failure(status_text(client.tamsel_device_status_text, transport, device[0].status))
    answer = Answer()
    check(client.tamsel_decode_answer(transport, frame, len(frame), device[0].data,
                                      device[0].length, answer))
    return answer.values[:answer.count]


def read_tcpip(socket_path, ip_address, port):
    frame = read_frame(TCPIP)
    request = ctypes.create_string_buffer(REQUEST_SIZE[TCPIP])
    client.tamsel_begin_tcpip(request, 3)
    check(client.tamsel_add_tcpip_device(request, ADDRESS, ip_address.encode(), port, TIMEOUT_MS,
                                         frame, len(frame)))
    return read_registers(TCPIP, socket_path, request, frame)


def read_rs485(socket_path):
    frame = read_frame(RS485)
    request = ctypes.create_string_buffer(REQUEST_SIZE[RS485])
    client.tamsel_begin_rs485(request, 1, check(client.tamsel_baud_code(19200)))
    line = PortParams(ADDRESS, check(client.tamsel_line_code(b"8N1")), TIMEOUT_MS)
    check(client.tamsel_add_rs485_device(request, line, frame, len(frame)))
    return read_registers(RS485, socket_path, request, frame)


def succeeds(name, read, *arguments):
    try:
        print(f"{name}:", *read(*arguments))
        return True
    except Failure as failure:
        print(f"{name}: {failure}", file=sys.stderr)
        return False


def main():
    if len(sys.argv) != 4:
        sys.exit("usage: read_registers.py SOCKET IP PORT")
    socket_path, ip_address, port = sys.argv[1:]
    has_tcpip = succeeds("TCP/IP", read_tcpip, socket_path, ip_address, int(port))
    has_rs485 = succeeds("RS485", read_rs485, socket_path)
    return 0 if has_tcpip and has_rs485 else 1


if __name__ == "__main__":
    sys.exit(main())
