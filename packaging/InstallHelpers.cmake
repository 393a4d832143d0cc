# Install directories and helpers the subdirectories use; included before them.

# The modules directory the framework reads (its fixed path, whatever the
# installation prefix: a configuration file elsewhere would never be read),
# and where the bundled modules go, relative to the prefix.
file(STRINGS ${CMAKE_SOURCE_DIR}/framework/ModuleConfig.h _conf_line
     REGEX "kDefaultModulesDir = \"[^\"]+\"")
string(REGEX REPLACE ".*kDefaultModulesDir = \"([^\"]+)\".*" "\\1" TARVD_MODULE_CONF_DIR "${_conf_line}")
if(NOT TARVD_MODULE_CONF_DIR MATCHES "^/")
  message(FATAL_ERROR "framework/ModuleConfig.h: no kDefaultModulesDir found")
endif()
set(TARVD_MODULE_DIR "${CMAKE_INSTALL_LIBDIR}/tarvd/modules")

# Compresses `source` into `output` at build time: gzip -9n, without the
# file's name and time stamp, so that the same sources give the same bytes.
function(tarvd_gzip source output)
  get_filename_component(name ${output} NAME)
  add_custom_command(OUTPUT ${output}
    COMMAND sh -c "gzip -9n <\"$1\" >\"$2\"" sh ${source} ${output}
    DEPENDS ${source} VERBATIM)
  string(MAKE_C_IDENTIFIER "gzip_${name}" target)
  add_custom_target(${target} ALL DEPENDS ${output})
endfunction()

# Installs a manual page compressed into the section its name ends with
# (kopd.8 into man8).
function(tarvd_install_man page)
  get_filename_component(name ${page} NAME)
  if(NOT name MATCHES "\\.([1-9])$")
    message(FATAL_ERROR "${page}: a manual page's name ends with its section")
  endif()
  set(section ${CMAKE_MATCH_1})
  tarvd_gzip(${page} ${CMAKE_BINARY_DIR}/man/${name}.gz)
  install(FILES ${CMAKE_BINARY_DIR}/man/${name}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endfunction()
