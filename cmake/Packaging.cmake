# Debian packages, one per install component (cpack -G DEB in a build tree):
#
#   libtql1      runtime  the control library
#   libtql-dev   dev      headers and the CMake package (find_package(tql))
#   tql-sim      sim      the simulated actuator bus, libActuatorController.so;
#                         it provides "libactuatorcontroller", which a package
#                         of the actuator maker's library provides on the board
#   tql          tools    the host, the companion programs, the demo and the 3D view
#   python3-tql  python   the Python module (native builds only)
#
# Files go under /usr; the programs find the library by their RPATH
# ($ORIGIN/../lib), so a package tree unpacked under any root runs as it is.
# The architecture is the target's: amd64 natively, armhf from the board's
# cross build. Dependencies on Debian's packages are computed by
# dpkg-shlibdeps natively and named below for the cross build (the libraries
# `ldd` lists for each binary, by their Debian 12 package names).

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tql)
set(CPACK_PACKAGE_VENDOR "Orvalt")
set(CPACK_PACKAGE_CONTACT "Orvalt controller team <controller@orvalt.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Release packages carry no debug information (the identification tool alone
# would be 40 MB with it).
set(CPACK_STRIP_FILES ON)

if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
endif()

set(CPACK_COMPONENTS_ALL runtime dev sim tools)
if(TARGET tql_python)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()

set(_tql_exact "(= ${PROJECT_VERSION})")
set(_tql_bus "tql-sim | libactuatorcontroller")
# Dependencies on Debian's own packages: computed by dpkg-shlibdeps from the
# binaries natively (our own libraries, in the build tree, are left to the
# names below); named here for the board's cross build, whose sysroot
# dpkg-shlibdeps cannot look into.
if(NOT CMAKE_CROSSCOMPILING AND EXISTS /usr/bin/dpkg-shlibdeps)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR} ${CMAKE_BINARY_DIR}/sim)
  set(_tql_computed ON)
endif()
# The arguments that are not empty, joined with ", "; the named ones only
# without computed dependencies.
function(tql_depends var)
  set(named OFF)
  set(out "")
  foreach(item ${ARGN})
    if(item STREQUAL "NAMED")
      set(named ON)
    elseif(NOT (named AND _tql_computed))
      if(out)
        string(APPEND out ", ")
      endif()
      string(APPEND out "${item}")
    endif()
  endforeach()
  set(${var} "${out}" PARENT_SCOPE)
endfunction()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtql1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
tql_depends(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${_tql_bus}" NAMED libc6 libstdc++6 libgcc-s1 libsqlite3-0)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "Orvalt Manipulator Controller: control library\nBoots a six-joint arm of smart servo actuators from a SQLite parameter\ndatabase and runs MOVJ, MOVL and MOVC programs, teaching, replay,\nidentification and gravity compensation on a 4 ms cycle.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtql-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libtql1 ${_tql_exact}, ${_tql_bus}")
set(CPACK_DEBIAN_DEV_DESCRIPTION
  "Orvalt Manipulator Controller: development files\nHeaders under /usr/include/tql and the CMake package (find_package(tql)).")

set(CPACK_DEBIAN_SIM_PACKAGE_NAME tql-sim)
set(CPACK_DEBIAN_SIM_PACKAGE_PROVIDES libactuatorcontroller)
tql_depends(CPACK_DEBIAN_SIM_PACKAGE_DEPENDS NAMED libc6 libstdc++6 libgcc-s1 liborocos-kdl1.5 liburdfdom-model3.0
            libconsole-bridge1.0)
set(CPACK_DEBIAN_SIM_DESCRIPTION
  "Orvalt Manipulator Controller: simulated actuator bus\nlibActuatorController.so for a PC: six simulated smart actuators driving a\nURDF arm with gravity, inertia and friction, with a flight recorder and\nfault injection. On the robot, the actuator maker's library takes its place.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tql)
tql_depends(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libtql1 ${_tql_exact}" "${_tql_bus}" NAMED libc6 libstdc++6 libgcc-s1
            libsqlite3-0)
# tql-urdf links urdfdom's model library and TinyXML itself (the simulated
# bus, which also needs them, is not on the board).
if(TARGET tql_urdf)
  tql_depends(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS}" NAMED liburdfdom-model3.0
              libtinyxml2.6.2v5)
endif()
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "python3-tql, python3-matplotlib, python3-numpy")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
  "Orvalt Manipulator Controller: host program, tools and demo\ntql (the host), tql-pendant (the operator's pendant) and its page,\ntql-identify, tql-excite, tql-pacing, tql-urdf, tql-plot, tql-pendant-latency,\nand the demo working directory in /usr/share/tql/demo.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-tql)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "libtql1 ${_tql_exact}, python3 (>= 3.11), python3 (<< 3.12), python3-numpy")
set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS "python3-websocket")  # the pendant's client, tql_pendant
set(CPACK_DEBIAN_PYTHON_DESCRIPTION
  "Orvalt Manipulator Controller: Python module\nKinematics, the speed profile, the dynamics regressor and inverse dynamics,\nand the trajectory file reader and writer, on numpy arrays; tql_pendant,\nthe client of the pendant's network API.")

# Every package carries the project's licence (MIT) as its copyright file.
foreach(_tql_pkg runtime:libtql1 dev:libtql-dev sim:tql-sim tools:tql python:python3-tql)
  string(REPLACE ":" ";" _tql_pair ${_tql_pkg})
  list(GET _tql_pair 0 _tql_component)
  list(GET _tql_pair 1 _tql_name)
  if(_tql_component IN_LIST CPACK_COMPONENTS_ALL)
    install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${_tql_name}
            RENAME copyright COMPONENT ${_tql_component})
  endif()
endforeach()

include(CPack)
