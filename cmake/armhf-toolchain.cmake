# Cross build for the board: Debian's gcc-arm-linux-gnueabihf. The unit tests
# run under qemu-arm through CTest's cross-compiling emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf /usr/lib/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# The programs run against Debian's multiarch armhf libraries (libc6:armhf,
# which libcmocka-dev:armhf brings): one glibc for every library. Mixing the
# cross toolchain's libc with the multiarch libm makes threads crash.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
