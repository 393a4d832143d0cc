# Run by CPack after the files are staged: writes the Debian conffiles list,
# one line per module configuration file in the staged tree, so that dpkg
# keeps an administrator's changes on upgrades.
file(GLOB_RECURSE _staged LIST_DIRECTORIES false
     "${CPACK_TEMPORARY_INSTALL_DIRECTORY}${CPACK_TARVD_MODULE_CONF_DIR}/*.conf")
set(_text "")
foreach(f ${_staged})
  file(RELATIVE_PATH rel "${CPACK_TEMPORARY_INSTALL_DIRECTORY}" "${f}")
  string(APPEND _text "/${rel}\n")
endforeach()
file(WRITE "${CPACK_TARVD_CONFFILES}" "${_text}")
