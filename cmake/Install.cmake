# Installation: the libraries, their headers under include/drx, drxfs, a CMake package
# (find_package(drx_FileSystem CONFIG): drx::FileSystem, drx::Logger, drx::FileSystemTesting)
# and a pkg-config file. Run paths are relative to $ORIGIN, so a prefix can be moved as a whole.
include(CMakePackageConfigHelpers)

set(DRX_PACKAGE drx_FileSystem)
set(DRX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/${DRX_PACKAGE})
set(DRX_HEADER_DIR ${CMAKE_INSTALL_INCLUDEDIR}/drx)

# libdrx_FileSystem finds libdrx_Logger beside itself; drxfs finds both from the binary directory.
file(RELATIVE_PATH DRX_BIN_TO_LIB ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(drx_FileSystem drx_Logger PROPERTIES INSTALL_RPATH "\$ORIGIN")
if(TARGET drxfs)
  set_target_properties(drxfs PROPERTIES INSTALL_RPATH "\$ORIGIN/${DRX_BIN_TO_LIB}")
  install(TARGETS drxfs RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(TARGETS drx_Logger drx_FileSystem EXPORT ${DRX_PACKAGE}Targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        FILE_SET HEADERS DESTINATION ${DRX_HEADER_DIR})
install(TARGETS drx_FileSystemTesting EXPORT ${DRX_PACKAGE}Targets
        FILE_SET HEADERS DESTINATION ${DRX_HEADER_DIR}/testing)
install(EXPORT ${DRX_PACKAGE}Targets NAMESPACE drx:: DESTINATION ${DRX_CMAKE_DIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/package/Config.cmake.in
                              ${PROJECT_BINARY_DIR}/${DRX_PACKAGE}Config.cmake
                              INSTALL_DESTINATION ${DRX_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/${DRX_PACKAGE}ConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/${DRX_PACKAGE}Config.cmake
              ${PROJECT_BINARY_DIR}/${DRX_PACKAGE}ConfigVersion.cmake
        DESTINATION ${DRX_CMAKE_DIR})

# pkg-config: library and include directories relative to ${prefix} when they are relative,
# as given when they are absolute.
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(DRX_PC_${kind} "${CMAKE_INSTALL_${kind}}")
  else()
    set(DRX_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/package/drx_FileSystem.pc.in
               ${PROJECT_BINARY_DIR}/${DRX_PACKAGE}.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/${DRX_PACKAGE}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
