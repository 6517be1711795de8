# Installation and the CMake package: an agent's build finds the library with
#   find_package(SrTePolicy REQUIRED)
#   target_link_libraries(myAgent PRIVATE SrTePolicy::SrTeAgent)   # or SrTePolicy::SrTePolicy
# Headers install under include/SrTePolicy with the layout the sources use ("Mosk/Ptr.h",
# "SrTePolicy/SrTePolicyEntry.h", "SrTePolicyAgent.h", ...).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(SRTE_INCLUDE_DEST ${CMAKE_INSTALL_INCLUDEDIR}/SrTePolicy)
set(SRTE_CMAKE_DEST ${CMAKE_INSTALL_LIBDIR}/cmake/SrTePolicy)

set_target_properties(SrTeRuntime SrTePolicy SrTeAgent PROPERTIES
  INSTALL_RPATH "$ORIGIN"
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR})

install(TARGETS SrTeRuntime SrTePolicy SrTeAgent EXPORT SrTePolicyTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(DIRECTORY runtime/ DESTINATION ${SRTE_INCLUDE_DEST} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY src-includes/ DESTINATION ${SRTE_INCLUDE_DEST} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY SrTePolicy/ DESTINATION ${SRTE_INCLUDE_DEST}/SrTePolicy
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY agent/ DESTINATION ${SRTE_INCLUDE_DEST} FILES_MATCHING PATTERN "*.h")
# Generated model headers; the test-only model stays out.
install(DIRECTORY ${CMAKE_BINARY_DIR}/generated/ DESTINATION ${SRTE_INCLUDE_DEST}
  FILES_MATCHING PATTERN "*.h" PATTERN "TestModel.h" EXCLUDE)

install(EXPORT SrTePolicyTargets NAMESPACE SrTePolicy:: DESTINATION ${SRTE_CMAKE_DEST})
configure_package_config_file(cmake/SrTePolicyConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/SrTePolicyConfig.cmake INSTALL_DESTINATION ${SRTE_CMAKE_DEST})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/SrTePolicyConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/SrTePolicyConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/SrTePolicyConfigVersion.cmake DESTINATION ${SRTE_CMAKE_DEST})
