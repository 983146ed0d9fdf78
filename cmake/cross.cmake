# Toolchain for Debian's cross compilers: -DKESTAL_TRIPLET=aarch64-linux-gnu. Programs run under qemu's user emulation.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTAL_TRIPLET)
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR "${KESTAL_TRIPLET}")
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${KESTAL_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KESTAL_TRIPLET}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${KESTAL_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

set(machine ${CMAKE_SYSTEM_PROCESSOR})
if(machine MATCHES "^i.86$")
    set(machine i386)
elseif(machine STREQUAL "arm")
    # Backtraces need unwind tables, which this machine's compiler leaves out by itself.
    set(CMAKE_C_FLAGS_INIT -funwind-tables)
    set(CMAKE_CXX_FLAGS_INIT -funwind-tables)
endif()
# The library path as well: the loader of a 32-bit PC would otherwise look where the host keeps its own.
set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-${machine};-L;/usr/${KESTAL_TRIPLET};-E;LD_LIBRARY_PATH=/usr/${KESTAL_TRIPLET}/lib)
