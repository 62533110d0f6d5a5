# Cross build for the target architecture with Debian's cross compiler and
# the arm64 multiarch packages; tests run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
# No -L prefix: the arm64 packages bring the target's own loader and C library
# (/lib/ld-linux-aarch64.so.1). Under the cross toolchain's prefix, its older
# loader would pair with the packages' newer C library, and that mix hangs in
# the first thread creation.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
