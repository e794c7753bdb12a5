# The simulated bus's physical world (rigid body, gravity, friction) needs
# Orocos KDL, urdfdom and Eigen. tql_sim_physics(TARGET SCOPE) compiles TARGET
# with the world and links the three with SCOPE (PRIVATE for the shared bus,
# PUBLIC for a static copy) when they are found, and sets
# TQL_SIM_HAS_PHYSICS in the caller's scope; without them (the board's cross
# build when its packages are missing) the arm stays kinematic.
function(tql_sim_physics target scope)
  find_package(orocos_kdl QUIET)
  find_package(urdfdom QUIET)
  find_package(Eigen3 QUIET NO_MODULE)
  if(orocos_kdl_FOUND AND urdfdom_FOUND AND TARGET Eigen3::Eigen)
    target_compile_definitions(${target} PRIVATE TQL_SIM_PHYSICS)
    target_include_directories(${target} SYSTEM PRIVATE ${orocos_kdl_INCLUDE_DIRS} ${urdfdom_INCLUDE_DIRS})
    target_link_libraries(${target} ${scope} ${orocos_kdl_LIBRARIES} ${urdfdom_LIBRARIES} Eigen3::Eigen)
    set(TQL_SIM_HAS_PHYSICS ON PARENT_SCOPE)
  else()
    set(TQL_SIM_HAS_PHYSICS OFF PARENT_SCOPE)
  endif()
endfunction()
