# cmake --install: the headers, the libraries, and what pkg-config and find_package(nira-ipc) need to find them. All of
# it can be moved together, to any prefix.
include(CMakePackageConfigHelpers)

# The exported target needs nothing of anybody else's, so that it is the whole package file: what the library itself
# links is its own affair.
set(NIRA_IPC_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/nira-ipc)
install(TARGETS nira-ipc EXPORT nira-ipc-config LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT nira-ipc-config NAMESPACE nira-ipc:: DESTINATION ${NIRA_IPC_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/nira-ipc-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/nira-ipc-config-version.cmake DESTINATION ${NIRA_IPC_PACKAGE_DIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/nira-ipc FILES_MATCHING PATTERN "*.h")

# Nobody links nira-platform but nira-ipc, which finds it beside itself, also in a prefix that the system does not search.
if(TARGET nira-platform)
  install(TARGETS nira-platform LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_SKIP)
  set_target_properties(nira-ipc PROPERTIES INSTALL_RPATH "$ORIGIN")
endif()

# Appended as paths, because the two directories may be absolute. The file's own place tells the prefix.
set(NIRA_IPC_PC_LIBDIR "\${prefix}")
set(NIRA_IPC_PC_INCLUDEDIR "\${prefix}")
cmake_path(APPEND NIRA_IPC_PC_LIBDIR ${CMAKE_INSTALL_LIBDIR})
cmake_path(APPEND NIRA_IPC_PC_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR} nira-ipc)
set(NIRA_IPC_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
cmake_path(RELATIVE_PATH NIRA_IPC_PC_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
configure_file(cmake/nira-ipc.pc.in nira-ipc.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/nira-ipc.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
