# Installation: the shared library with its SONAME links, the headers, the
# tool, a CMake package (find_package(krvxml CONFIG) gives krvxml::krvxml)
# and a relocatable pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KRVXML_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/krvxml)

install(TARGETS krvxml EXPORT krvxmlTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES
    ${PROJECT_SOURCE_DIR}/include/krv_xml.h
    ${PROJECT_SOURCE_DIR}/include/krv_xml_component.h
    ${PROJECT_SOURCE_DIR}/include/krv_xml.hpp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Valgrind suppressions for the parser's scans past a caller string's NUL.
install(FILES ${PROJECT_SOURCE_DIR}/tools/krvxml.supp DESTINATION ${CMAKE_INSTALL_DATADIR}/krvxml)

if(TARGET krvxml_cli)
  # The installed tool finds the library beside it, wherever the tree is moved.
  file(RELATIVE_PATH _bin_to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(krvxml_cli PROPERTIES INSTALL_RPATH "$ORIGIN/${_bin_to_lib}")
  install(TARGETS krvxml_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(EXPORT krvxmlTargets NAMESPACE krvxml:: DESTINATION ${KRVXML_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/krvxmlConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/krvxmlConfig.cmake
  INSTALL_DESTINATION ${KRVXML_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/krvxmlConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/krvxmlConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/krvxmlConfigVersion.cmake
  DESTINATION ${KRVXML_CMAKE_DIR})

# pkg-config: the prefix is found from the .pc file's own place, so the
# installed tree can be moved.
set(_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH _pc_to_prefix /${_pc_dir} /)
string(REGEX REPLACE "/$" "" _pc_to_prefix "${_pc_to_prefix}")
set(KRVXML_PC_PREFIX "\${pcfiledir}/${_pc_to_prefix}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/krvxml.pc.in ${CMAKE_CURRENT_BINARY_DIR}/krvxml.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/krvxml.pc DESTINATION ${_pc_dir})
