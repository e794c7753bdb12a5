# Cross-compiling for the controller board: 32-bit ARM, hard-float.
# TQL_ARMHF_SYSROOT holds the target's SQLite, Orocos KDL, urdfdom (with
# console_bridge and TinyXML) and Eigen, unpacked from Debian's armhf packages
# (tools/cross-build.sh). The C library and libstdc++ come from the cross
# compiler's own /usr/arm-linux-gnueabihf.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(TQL_ARMHF_SYSROOT "" CACHE PATH "Unpacked armhf packages (SQLite, KDL, urdfdom, Eigen)")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TQL_ARMHF_SYSROOT)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf ${TQL_ARMHF_SYSROOT} ${TQL_ARMHF_SYSROOT}/usr)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Test programs, test discovery and the programs run at build time (the demo
# database and its dynamic parameters) run under user-mode emulation.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)
# GCC notes that passing some structures by value changed in GCC 7.1; every
# object of the board's build comes from this one compiler.
set(CMAKE_C_FLAGS_INIT "-Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
if(TQL_ARMHF_SYSROOT)
  set(_tql_sysroot_lib ${TQL_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf)
  # The unpacked tree stands in for the target's /usr: its headers are system
  # headers (no warnings from them under -Werror) and its libraries are found
  # by bare name too (KDL's package names its library only as "orocos-kdl").
  string(APPEND CMAKE_C_FLAGS_INIT " -isystem ${TQL_ARMHF_SYSROOT}/usr/include")
  string(APPEND CMAKE_CXX_FLAGS_INIT " -isystem ${TQL_ARMHF_SYSROOT}/usr/include")
  # Programs in the build tree find the unpacked libraries without an
  # installation or LD_LIBRARY_PATH (installed programs do not carry it): the
  # build RPATH names them, as DT_RPATH, which unlike RUNPATH also serves the
  # unpacked libraries' own dependencies (urdfdom's console_bridge and TinyXML).
  foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT
        "-L${_tql_sysroot_lib} -Wl,-rpath-link,${_tql_sysroot_lib} -Wl,--disable-new-dtags")
  endforeach()
  set(CMAKE_BUILD_RPATH ${_tql_sysroot_lib})
endif()
