# Cross builds: GoogleTest built from the sources of Debian's googletest package with the
# cross compiler (the host's libgtest is for the host's CPU). Its code is not held to this
# project's warning flags.
set(FLASHAGING_GTEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest's sources (Debian package googletest)")
if(NOT EXISTS ${FLASHAGING_GTEST_SOURCE}/CMakeLists.txt)
  message(FATAL_ERROR "no GoogleTest sources in ${FLASHAGING_GTEST_SOURCE}: install Debian's googletest package")
endif()
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
get_directory_property(project_options COMPILE_OPTIONS)
set_directory_properties(PROPERTIES COMPILE_OPTIONS "")
add_subdirectory(${FLASHAGING_GTEST_SOURCE} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
set_directory_properties(PROPERTIES COMPILE_OPTIONS "${project_options}")
