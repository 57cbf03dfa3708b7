# Cross build for the device's processor (64-bit Arm) with Debian's cross compiler; tests run
# under qemu-user, named explicitly because binfmt_misc may be unavailable.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# The cross C and C++ runtimes live in the arm64 system root; multiarch -dev packages
# (libi2c-dev:arm64) install into /usr/lib/aarch64-linux-gnu.
set(DRX_AARCH64_SYSROOT /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH ${DRX_AARCH64_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# The runtime search path puts the cross runtimes first, so the loader and libc come from one
# build, and finds multiarch libraries after them.
set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-aarch64-static -L ${DRX_AARCH64_SYSROOT}
    -E LD_LIBRARY_PATH=${DRX_AARCH64_SYSROOT}/lib:/usr/lib/aarch64-linux-gnu)

# GoogleTest for the target is built from the sources of Debian's googletest package.
set(DRX_GTEST_FROM_SOURCE ON)
