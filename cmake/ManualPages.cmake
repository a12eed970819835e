# norvcrypt_manual(): the manual pages and the completion of the tool, which writes them itself.
function(norvcrypt_manual)
  set(folder "${PROJECT_BINARY_DIR}/norvcrypt-manual")
  if(CMAKE_CROSSCOMPILING)
    message(STATUS "No manual pages: the tool cannot be run here, and writes them itself (norvcrypt help --write-all)")
    return()
  endif()
  file(MAKE_DIRECTORY "${folder}")
  add_custom_command(OUTPUT "${folder}/norvcrypt.1"
                     COMMAND norvcrypt help --write-all "${folder}"
                     DEPENDS norvcrypt
                     COMMENT "Writing the manual pages of norvcrypt" VERBATIM)
  add_custom_target(norvcrypt_manual ALL DEPENDS "${folder}/norvcrypt.1")
  install(DIRECTORY "${folder}/" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" FILES_MATCHING PATTERN "*.1")
  install(FILES "${folder}/norvcrypt.bash" DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
          RENAME norvcrypt OPTIONAL)
endfunction()
