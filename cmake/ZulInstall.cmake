# Install rules: headers, the library, a CMake package (find_package(ZulFoundation)) and a
# pkg-config file (zulfoundation.pc).
include(CMakePackageConfigHelpers)

install(TARGETS ZulFoundation EXPORT ZulFoundationTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/zul DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_BINARY_DIR}/generated/zul/version.hpp DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zul)

set(ZUL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZulFoundation)
install(EXPORT ZulFoundationTargets NAMESPACE ZulFoundation:: DESTINATION ${ZUL_CMAKE_DIR})
configure_package_config_file(cmake/ZulFoundationConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ZulFoundationConfig.cmake INSTALL_DESTINATION ${ZUL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZulFoundationConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ZulFoundationConfig.cmake
  ${PROJECT_BINARY_DIR}/ZulFoundationConfigVersion.cmake DESTINATION ${ZUL_CMAKE_DIR})

# pkg-config: a static build lists its private link needs so that `pkg-config --static` works.
set(ZUL_PC_LIBS_PRIVATE "-pthread")
set(ZUL_PC_REQUIRES_PRIVATE "libcurl simdjson libpcre2-8")
configure_file(cmake/zulfoundation.pc.in ${PROJECT_BINARY_DIR}/zulfoundation.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zulfoundation.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(ZUL_BUILD_TOOLS)
  install(TARGETS zul RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(DIRECTORY samples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/zulfoundation/samples)
