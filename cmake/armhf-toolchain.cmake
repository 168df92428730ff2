# Cross build for the board: Debian's g++-arm-linux-gnueabihf. The tests run
# under qemu-arm through CTest's cross-compiling emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf /usr/lib/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# GoogleTest comes from Debian's multiarch armhf packages (libgtest-dev:armhf,
# static libraries only); the programs run under qemu-arm against the cross
# runtime the compiler links with (libc6-armhf-cross, libstdc++6-armhf-cross).
set(CMAKE_PREFIX_PATH /usr/lib/arm-linux-gnueabihf/cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)
# gcc notes on every std::vector of a struct that its parameter passing
# changed in gcc 7.1; everything here is built with one compiler.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
