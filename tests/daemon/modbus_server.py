"""Serves the holding registers 0 to 99 of unit 1: register r holds 7 * r + 40000.

Over Modbus RTU on the serial device that is its argument, else over Modbus/TCP on a loopback port.
When it is ready it prints what tamselctl calls the device. Ends when its standard input does.
"""
import asyncio, os, sys, threading

from pymodbus.datastore import ModbusSequentialDataBlock, ModbusServerContext, ModbusSlaveContext
from pymodbus.server.async_io import ModbusSerialServer, ModbusTcpServer
from pymodbus.transaction import ModbusRtuFramer


async def serve(device=None):
    registers = ModbusSequentialDataBlock(0, [7 * r + 40000 for r in range(100)])
    unit = ModbusSlaveContext(hr=registers, zero_mode=True)
    context = ModbusServerContext(slaves={1: unit}, single=False)
    if device:
        server = ModbusSerialServer(context, framer=ModbusRtuFramer, port=device, baudrate=19200)
        await server.start()
        print("1 --baud 19200 --silence 250", flush=True)
        await server.serve_forever()
    server = ModbusTcpServer(context, address=("127.0.0.1", 0))
    task = asyncio.ensure_future(server.serve_forever())
    await server.serving
    print("1=127.0.0.1:%d" % server.server.sockets[0].getsockname()[1], flush=True)
    await task


threading.Thread(target=lambda: os._exit(len(sys.stdin.read())), daemon=True).start()
asyncio.run(serve(*sys.argv[1:]))
