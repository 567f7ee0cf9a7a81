# Two components, which become a package each. "runtime" is what a host needs: the programs, and what
# tells people, shells and the system about them.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

set(ZENDREL_ZSH_COMPLETIONS ${CMAKE_INSTALL_DATADIR}/zsh/site-functions
    CACHE STRING "Where zsh looks for completions")
set(completions ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

install(TARGETS zendrel zendrelctl COMPONENT runtime RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES share/app-meta.rng share/oxa.conf COMPONENT runtime
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zendrel)
foreach(program IN ITEMS zendrel zendrelctl)  # bash-completion asks for a file by each name
    install(FILES share/completion/zendrel.bash COMPONENT runtime
        DESTINATION ${completions} RENAME ${program})
endforeach()
install(FILES share/completion/_zendrel COMPONENT runtime DESTINATION ${ZENDREL_ZSH_COMPLETIONS})
foreach(kind IN ITEMS sysusers tmpfiles)  # below "lib" on every architecture
    install(FILES share/${kind}.conf COMPONENT runtime
        DESTINATION lib/${kind}.d RENAME zendrel.conf)
endforeach()
foreach(page IN ITEMS zendrel.8 zendrelctl.8 app-meta.5 instance-list.5 oxa.conf.5 zendrel-sys.3)
    string(REGEX MATCH "[0-9]$" section ${page})
    set(component runtime)
    if(section EQUAL 3)
        set(component development)
    endif()
    install(FILES docs/man/${page} COMPONENT ${component}
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
# The guides tell to copy the examples.
install(FILES docs/administrators.md docs/packages.md docs/apache.md docs/security.md
    COMPONENT runtime DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY examples/packages COMPONENT runtime USE_SOURCE_PERMISSIONS
    DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

# "development" is what other programs build on: the libraries, their headers below "zendrel/", a
# CMake package and pkg-config files.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)
set(headers ${CMAKE_INSTALL_INCLUDEDIR}/zendrel)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/zendrel)

# Found from where the file lies, so that the tree may be moved.
file(RELATIVE_PATH up /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)

install(DIRECTORY common clib sys app DESTINATION ${headers} FILES_MATCHING PATTERN *.h)
install(CODE "set(headers \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${headers}\")")
install(SCRIPT cmake/InstallHeaders.cmake)

function(zendrel_install name description requires libs)
    target_include_directories(zendrel_${name}
        INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_compile_definitions(zendrel_${name}  # as it was built
        INTERFACE "$<INSTALL_INTERFACE:BOOST_FILESYSTEM_VERSION=3;_FILE_OFFSET_BITS=64>")
    target_compile_features(zendrel_${name} PUBLIC cxx_std_17)
    set_target_properties(zendrel_${name} PROPERTIES EXPORT_NAME ${name})
    install(TARGETS zendrel_${name} EXPORT zendrel DESTINATION ${CMAKE_INSTALL_LIBDIR})
    configure_file(cmake/zendrel.pc.in zendrel-${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/zendrel-${name}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

zendrel_install(common "errors and temporary files" "" "")
zendrel_install(xml "reading hostile XML" "libxml-2.0" "")
zendrel_install(clib "the panel's C functions" "" "")
zendrel_install(sys "running programs, pipelines and redirections" "zendrel-common" "")
zendrel_install(app "deploying packaged web applications" "zendrel-common zendrel-xml zendrel-clib"
    "-lboost_filesystem -lboost_program_options -pthread")

install(EXPORT zendrel NAMESPACE zendrel:: FILE zendrelTargets.cmake DESTINATION ${package})
configure_package_config_file(cmake/zendrelConfig.cmake.in zendrelConfig.cmake
    INSTALL_DESTINATION ${package})
write_basic_package_version_file(zendrelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zendrelConfig.cmake
    ${PROJECT_BINARY_DIR}/zendrelConfigVersion.cmake DESTINATION ${package})
install(FILES examples/CMakeLists.txt examples/pipeline.cpp
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libzendrel-dev/examples)
