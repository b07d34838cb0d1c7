"""Serves the holding registers 0 to 49 of unit 7 over Modbus RTU: register r holds 11 * r + 50000.

Its argument is the serial device. Prints "ready", and ends when its standard input does.
"""
import asyncio
import os
import sys
import threading

from pymodbus.datastore import (ModbusSequentialDataBlock, ModbusServerContext,
                                ModbusSlaveContext)
from pymodbus.server.async_io import ModbusSerialServer
from pymodbus.transaction import ModbusRtuFramer


def exit_with_parent():
    sys.stdin.read()
    os._exit(0)


async def serve(device):
    registers = ModbusSequentialDataBlock(0, [11 * r + 50000 for r in range(50)])
    unit = ModbusSlaveContext(hr=registers, zero_mode=True)
    server = ModbusSerialServer(ModbusServerContext(slaves={7: unit}, single=False),
                                framer=ModbusRtuFramer, port=device, baudrate=19200)
    await server.start()
    print("ready", flush=True)
    await server.serve_forever()


threading.Thread(target=exit_with_parent, daemon=True).start()
asyncio.run(serve(sys.argv[1]))
