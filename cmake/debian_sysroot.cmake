# What the toolchain files of the boards share: Debian's cross compiler for board_triplet, and a
# sysroot for board_architecture that cmake/make_sysroot makes and keeps below build/.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${board_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${board_triplet}-g++)
cmake_path(SET CMAKE_SYSROOT NORMALIZE
  "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${board_architecture}")

# Where a sysroot with other libraries would be found by accident, nothing is looked for.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${CMAKE_SYSROOT}/usr/lib/${board_library_folder}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")

get_property(is_try GLOBAL PROPERTY IN_TRY_COMPILE)
if(NOT is_try)
  execute_process(
    COMMAND "${CMAKE_CURRENT_LIST_DIR}/make_sysroot" ${board_architecture} "${CMAKE_SYSROOT}"
    COMMAND_ERROR_IS_FATAL ANY)
endif()
