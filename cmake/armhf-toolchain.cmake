# Cross-compiling for the controller board: 32-bit ARM, hard-float.
# TQL_ARMHF_SYSROOT holds the target's SQLite, unpacked from Debian's armhf packages.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(TQL_ARMHF_SYSROOT "" CACHE PATH "Unpacked armhf packages (SQLite)")
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf ${TQL_ARMHF_SYSROOT} ${TQL_ARMHF_SYSROOT}/usr)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Test programs (and test discovery) run under user-mode emulation.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)
# The unpacked libraries are found at link and run time without installing them.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${TQL_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
