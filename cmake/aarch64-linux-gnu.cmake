# The phone's CPU: Debian's aarch64 cross toolchain. Executables are linked statically (a
# phone has no glibc), and Debian's qemu-user-static runs them here: CTest starts every
# test program through it, so the unit tests run on an emulated arm64 CPU.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
find_program(FLASHAGING_QEMU_AARCH64 qemu-aarch64-static)
if(FLASHAGING_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${FLASHAGING_QEMU_AARCH64})
endif()
