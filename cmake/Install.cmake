# Install rules, exported targets (find_package(norvcrypto)) and the pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS norvrefcounted norvcmsg norvcrypto norvcrypto-keystore norvcrypto-trust norvcrypto-smime
        EXPORT norvcryptoTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS norvcrypt norvcrypt-milter RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# Only those that need another one of these: of a program that needs none, CMake would fill the path up with colons in the build
# tree, and the loader take each for the current folder.
set_target_properties(norvcrypto norvcrypto-keystore norvcrypto-trust norvcrypto-smime norvcrypt-milter
                      PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

install(FILES tools/milter/norvcrypt-milter.toml tools/milter/systemd/norvcrypt-milter.service
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES tools/milter/norvcrypt-milter.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)

install(DIRECTORY include2/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/norvcrypto)
install(DIRECTORY common/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/norvcmsg)
install(DIRECTORY extras/keystore/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/norvcrypto-keystore)
install(DIRECTORY extras/trust/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/norvcrypto-trust)
install(DIRECTORY extras/smime/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/norvcrypto-smime)

install(EXPORT norvcryptoTargets NAMESPACE norvcrypto:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/norvcrypto)
configure_package_config_file(cmake/norvcryptoConfig.cmake.in "${PROJECT_BINARY_DIR}/norvcryptoConfig.cmake"
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/norvcrypto)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/norvcryptoConfigVersion.cmake" COMPATIBILITY ${NORV_COMPATIBILITY})
install(FILES "${PROJECT_BINARY_DIR}/norvcryptoConfig.cmake" "${PROJECT_BINARY_DIR}/norvcryptoConfigVersion.cmake"
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/norvcrypto)

# The folder of the file itself leads to the rest, so that an installed tree can be moved.
file(RELATIVE_PATH NORV_PREFIX_FROM_PC "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
configure_file(cmake/norvcrypto.pc.in "${PROJECT_BINARY_DIR}/norvcrypto.pc" @ONLY)
configure_file(cmake/norvcrypto-keystore.pc.in "${PROJECT_BINARY_DIR}/norvcrypto-keystore.pc" @ONLY)
configure_file(cmake/norvcrypto-trust.pc.in "${PROJECT_BINARY_DIR}/norvcrypto-trust.pc" @ONLY)
configure_file(cmake/norvcrypto-smime.pc.in "${PROJECT_BINARY_DIR}/norvcrypto-smime.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/norvcrypto.pc" "${PROJECT_BINARY_DIR}/norvcrypto-keystore.pc"
              "${PROJECT_BINARY_DIR}/norvcrypto-trust.pc" "${PROJECT_BINARY_DIR}/norvcrypto-smime.pc"
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
