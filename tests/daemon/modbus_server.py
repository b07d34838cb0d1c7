"""Serves the holding registers 0 to 99 of unit 1 over Modbus/TCP: register r holds 7 * r + 40000.

Prints the loopback port that it listens on, and ends when its standard input does.
"""
import asyncio
import os
import sys
import threading

from pymodbus.datastore import (ModbusSequentialDataBlock, ModbusServerContext,
                                ModbusSlaveContext)
from pymodbus.server.async_io import ModbusTcpServer


def exit_with_parent():
    sys.stdin.read()
    os._exit(0)


async def serve():
    registers = ModbusSequentialDataBlock(0, [7 * r + 40000 for r in range(100)])
    unit = ModbusSlaveContext(hr=registers, zero_mode=True)
    server = ModbusTcpServer(ModbusServerContext(slaves={1: unit}, single=False),
                             address=("127.0.0.1", 0))
    task = asyncio.ensure_future(server.serve_forever())
    await server.serving
    print(server.server.sockets[0].getsockname()[1], flush=True)
    await task


threading.Thread(target=exit_with_parent, daemon=True).start()
asyncio.run(serve())
