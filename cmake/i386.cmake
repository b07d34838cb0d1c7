# 32 bit without an emulator: the programs run on an amd64 kernel, with the libraries of the sysroot.
set(board_architecture i386)
set(board_triplet i686-linux-gnu)
set(board_library_folder i386-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/debian_sysroot.cmake)

# The old kind of path, because it also counts for what the libraries need themselves.
string(CONCAT CMAKE_EXE_LINKER_FLAGS_INIT
  "-Wl,--dynamic-linker=${CMAKE_SYSROOT}/lib/ld-linux.so.2 -Wl,--disable-new-dtags "
  "-Wl,-rpath,${CMAKE_SYSROOT}/lib/${board_library_folder}:"
  "${CMAKE_SYSROOT}/usr/lib/${board_library_folder}")
