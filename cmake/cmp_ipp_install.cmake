# Install rules: the shared libraries with their SOVERSION, the public headers
# under include/cmp_ipp/ in the source tree's layout (so that "cmp_ipp.h" and
# "containers/cmp_ipp_vector.h" resolve with -I<prefix>/include/cmp_ipp exactly
# as with -Isrc), the CMake package and the pkg-config files. Private headers
# (the HTTP task layer, the test hooks, the registry index, the HTML writer)
# are left out: nothing installed includes them.
include(CMakePackageConfigHelpers)

set(CMP_IPP_PUBLIC_HEADERS
  cmp_ipp.h
  platform/cmp_dbglog.h
  platform/emw_osw.h
  containers/cmp_ipp_buf.h
  containers/cmp_ipp_if.h
  containers/cmp_ipp_malloc.h
  containers/cmp_ipp_string.h
  containers/cmp_ipp_vector.h
  attr/cmp_ipp_attr.h
  attr/cmp_ipp_ipptable.h
  msg/cmp_ipp_attrs.h
  msg/cmp_ipp_ippmsg.h
  msg/cmp_ipp_limits.h
  msg/cmp_ipp_obj.h
  msg/cmp_ipp_request.h
  service/cmp_ipp_constants.h
  service/cmp_ipp_handler.h
  service/cmp_ipp_ippc.h
  service/cmp_ipp_manager.h
  service/cmp_ipp_facade.h)

set(CMP_IPP_INSTALL_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/cmp_ipp)
foreach(header IN LISTS CMP_IPP_PUBLIC_HEADERS)
  get_filename_component(subdir ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/src/${header}
    DESTINATION ${CMP_IPP_INSTALL_INCLUDE_DIR}/${subdir} COMPONENT dev)
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/generated/cmp_ipp_version.h
  DESTINATION ${CMP_IPP_INSTALL_INCLUDE_DIR} COMPONENT dev)

install(TARGETS cmp_ipp cmp_ipp_platform cmp_ipp_dictionary EXPORT cmp_ippTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)

set(CMP_IPP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/cmp_ipp)
install(EXPORT cmp_ippTargets NAMESPACE cmp_ipp:: DESTINATION ${CMP_IPP_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(cmake/cmp_ippConfig.cmake.in ${PROJECT_BINARY_DIR}/cmp_ippConfig.cmake
  INSTALL_DESTINATION ${CMP_IPP_CMAKE_DIR})
# A new major version is a new SOVERSION: only the same major version is compatible.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmp_ippConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cmp_ippConfig.cmake ${PROJECT_BINARY_DIR}/cmp_ippConfigVersion.cmake
  DESTINATION ${CMP_IPP_CMAKE_DIR} COMPONENT dev)

# pkg-config files that find their prefix from where they lie, so that
# `cmake --install build --prefix P` gives correct ones for any P.
set(CMP_IPP_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH CMP_IPP_PC_TO_PREFIX /cmp_ipp_prefix/${CMP_IPP_PC_DIR} /cmp_ipp_prefix)
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(CMP_IPP_PC_${kind} "${CMAKE_INSTALL_${kind}}")
  else()
    set(CMP_IPP_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
foreach(pc cmp_ipp cmp_ipp_dictionary)
  configure_file(cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMP_IPP_PC_DIR} COMPONENT dev)
endforeach()
