# The board: 32-bit ARM with hardware floating point. Its programs run here with qemu-arm.
set(board_architecture armhf)
set(board_triplet arm-linux-gnueabihf)
set(board_library_folder arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
include(${CMAKE_CURRENT_LIST_DIR}/debian_sysroot.cmake)

# Notes on how an older compiler passed arguments.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L "${CMAKE_SYSROOT}")
