# Cross builds: the device simulator stays a program of this host, so it is built by a host
# sub-build of this same source tree (in <build>/host, with the host's compiler) and stands
# here as the imported target flashaging-sim. The end-to-end scenarios of the cross build
# run this simulator on the cross build's own executable, which the simulator starts
# through the CPU emulator. The target flashaging-host makes the host's flashaging in the
# sub-build too (FLASHAGING_HOST_BIN), for the scenario that compares the two runs.
include(ExternalProject)
set(host_sim_dir ${CMAKE_BINARY_DIR}/host)
ExternalProject_Add(flashaging-sim-host
  SOURCE_DIR ${PROJECT_SOURCE_DIR}
  BINARY_DIR ${host_sim_dir}
  CMAKE_ARGS -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFLASHAGING_TESTS=OFF -DFLASHAGING_SIM=ON
  BUILD_COMMAND ${CMAKE_COMMAND} --build ${host_sim_dir} --target flashaging-sim --parallel 2
  BUILD_BYPRODUCTS ${host_sim_dir}/sim/flashaging-sim
  INSTALL_COMMAND ""
  BUILD_ALWAYS ON)
add_executable(flashaging-sim IMPORTED GLOBAL)
set_target_properties(flashaging-sim PROPERTIES IMPORTED_LOCATION ${host_sim_dir}/sim/flashaging-sim)
add_dependencies(flashaging-sim flashaging-sim-host)
set(FLASHAGING_HOST_BIN ${host_sim_dir}/flashaging)
add_custom_target(flashaging-host
  COMMAND ${CMAKE_COMMAND} --build ${host_sim_dir} --target flashaging --parallel 2
  BYPRODUCTS ${FLASHAGING_HOST_BIN})
add_dependencies(flashaging-host flashaging-sim-host)
