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
# GoogleTest comes from Debian's multiarch armhf packages (libgtest-dev:armhf);
# the programs run against the multiarch armhf runtime, one glibc for all.
set(CMAKE_PREFIX_PATH /usr/lib/arm-linux-gnueabihf/cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
