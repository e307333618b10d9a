# What a program needs to use the library: itself, its header, and the descriptions of both for
# CMake and pkg-config. All of it may be moved to another place after the installation.
include(CMakePackageConfigHelpers)

set(quillmere_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Quillmere)

install(TARGETS quillmere EXPORT QuillmereTargets)
install(DIRECTORY include/quillmere DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} OPTIONAL)

install(EXPORT QuillmereTargets NAMESPACE Quillmere:: FILE QuillmereConfig.cmake
        DESTINATION ${quillmere_package_dir})
write_basic_package_version_file(QuillmereConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/QuillmereConfigVersion.cmake
        DESTINATION ${quillmere_package_dir})

cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
           OUTPUT_VARIABLE quillmere_pc_libdir)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
           OUTPUT_VARIABLE quillmere_pc_includedir)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
           BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
           OUTPUT_VARIABLE quillmere_pc_prefix)
configure_file(cmake/quillmere.pc.in quillmere.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/quillmere.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
