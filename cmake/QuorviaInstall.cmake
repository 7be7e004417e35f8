# Install rules: headers, the library, the resource bundle, the CMake package
# (find_package(quorvia)) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS quorvia EXPORT quorviaTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/quorvia DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_BINARY_DIR}/include/quorvia/export.h
  ${PROJECT_BINARY_DIR}/include/quorvia/Version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quorvia)
install(DIRECTORY resources/ DESTINATION ${CMAKE_INSTALL_DATADIR}/quorvia/resources)

set(QUORVIA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/quorvia)
install(EXPORT quorviaTargets NAMESPACE quorvia:: DESTINATION ${QUORVIA_CMAKE_DIR})
configure_package_config_file(cmake/quorviaConfig.cmake.in
  ${PROJECT_BINARY_DIR}/quorviaConfig.cmake INSTALL_DESTINATION ${QUORVIA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/quorviaConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/quorviaConfig.cmake
  ${PROJECT_BINARY_DIR}/quorviaConfigVersion.cmake DESTINATION ${QUORVIA_CMAKE_DIR})

# A static libquorvia needs its dependencies on every link line, so they go
# under Requires and a plain `pkg-config --libs quorvia` links them (as shared
# libraries; --static would ask for their own static archives too).
set(QUORVIA_PC_DEPENDENCIES "libcurl sqlite3 icu-uc icu-i18n pangocairo cairo stb libmosquitto gio-2.0 libsecret-1")
if(BUILD_SHARED_LIBS)
  set(QUORVIA_PC_REQUIRES "")
  set(QUORVIA_PC_REQUIRES_PRIVATE " ${QUORVIA_PC_DEPENDENCIES}")
  set(QUORVIA_PC_LIBS "")
  set(QUORVIA_PC_LIBS_PRIVATE " -pthread")
else()
  set(QUORVIA_PC_REQUIRES " ${QUORVIA_PC_DEPENDENCIES}")
  set(QUORVIA_PC_REQUIRES_PRIVATE "")
  set(QUORVIA_PC_LIBS " -pthread")
  set(QUORVIA_PC_LIBS_PRIVATE "")
endif()
# Relative to the .pc file, so that an installed tree can be moved.
file(RELATIVE_PATH QUORVIA_PC_RELATIVE_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
  ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" QUORVIA_PC_RELATIVE_PREFIX "${QUORVIA_PC_RELATIVE_PREFIX}")
configure_file(cmake/quorvia.pc.in ${PROJECT_BINARY_DIR}/quorvia.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quorvia.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
