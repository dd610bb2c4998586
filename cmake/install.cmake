# Installation: where a Debian user and the hosts look for each piece.
#
#   bin/flowblur                        the batch host
#   lib/flowblur/flowblur_spark.so      the Spark plug-in (a compositing host is pointed at it)
#   lib/frei0r-1/flowblur.so            the frei0r filter (its own rule, frei0r/CMakeLists.txt)
#   share/man/man1/flowblur*.1.gz       one page a command, made from the tool's own --help
#   share/doc/flowblur/                 README (and a licence file, once there is one)
#   share/bash-completion/completions/  completion of the tool's options and commands
#
# `cmake --install BUILD --prefix /usr` after a build; scripts/package.sh makes the .deb
# (cmake/package.cmake).
include(GNUInstallDirs)

# The version the tool reports with --version and the package carries.
if(TARGET flowblur)
  target_compile_definitions(flowblur PRIVATE FLOWBLUR_VERSION="${PROJECT_VERSION}")
endif()

# Literal lib/, not the multiarch library folder: the plug-ins are found by path, and the
# frei0r hosts search lib/frei0r-1 only.
set(FLOWBLUR_SPARK_DIR lib/flowblur CACHE STRING "install folder of flowblur_spark.so, under the prefix")

# What an install or a package needs built; scripts/package.sh builds this, not every test.
add_custom_target(flowblur_installables)

if(TARGET flowblur)
  install(TARGETS flowblur RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  add_dependencies(flowblur_installables flowblur)
endif()
if(TARGET flowblur_spark)
  install(TARGETS flowblur_spark LIBRARY DESTINATION ${FLOWBLUR_SPARK_DIR})
  add_dependencies(flowblur_installables flowblur_spark)
endif()
if(TARGET flowblur_frei0r)
  add_dependencies(flowblur_installables flowblur_frei0r)
endif()

install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
foreach(licence LICENSE LICENSE.md LICENSE.txt COPYING)
  if(EXISTS ${PROJECT_SOURCE_DIR}/${licence})
    install(FILES ${PROJECT_SOURCE_DIR}/${licence} DESTINATION ${CMAKE_INSTALL_DOCDIR})
  endif()
endforeach()

if(TARGET flowblur)
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/flowblur.bash-completion
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME flowblur)
endif()

# Man pages, made at build time by help2man from each command's --help. One line a command:
#   flowblur_man_page(PAGE "WORDS AFTER flowblur" "one-line summary")
function(flowblur_man_page page words summary)
  set_property(GLOBAL APPEND PROPERTY FLOWBLUR_MAN_PAGES "${page}")
  set_property(GLOBAL PROPERTY FLOWBLUR_MAN_WORDS_${page} "${words}")
  set_property(GLOBAL PROPERTY FLOWBLUR_MAN_SUMMARY_${page} "${summary}")
endfunction()

flowblur_man_page(flowblur "" "optical-flow motion blur for image sequences")
flowblur_man_page(flowblur-demo "demo" "render, blur and show the built-in demo clip")
flowblur_man_page(flowblur-farm-slurm "farm slurm" "split a render into a Slurm job array, one task a chunk")
flowblur_man_page(flowblur-retime "retime" "slow motion, speed changes and frame-rate conversion along the optical flow")
flowblur_man_page(flowblur-deinterlace "deinterlace" "whole frames from interlaced footage")

find_program(HELP2MAN_EXECUTABLE help2man)
find_program(GZIP_EXECUTABLE gzip)
if(TARGET flowblur AND NOT CMAKE_CROSSCOMPILING)
  if(NOT HELP2MAN_EXECUTABLE OR NOT GZIP_EXECUTABLE)
    message(STATUS "help2man or gzip not found: no man pages (Debian: help2man)")
  else()
    get_property(pages GLOBAL PROPERTY FLOWBLUR_MAN_PAGES)
    set(man_dir ${CMAKE_BINARY_DIR}/man)
    file(MAKE_DIRECTORY ${man_dir})
    set(man_files)
    foreach(page ${pages})
      get_property(words GLOBAL PROPERTY FLOWBLUR_MAN_WORDS_${page})
      get_property(summary GLOBAL PROPERTY FLOWBLUR_MAN_SUMMARY_${page})
      # Every page points at the others.
      set(see_also)
      foreach(other ${pages})
        if(NOT other STREQUAL page)
          list(APPEND see_also ".BR ${other} (1)")
        endif()
      endforeach()
      list(JOIN see_also ",\n" see_also)
      file(CONFIGURE OUTPUT ${man_dir}/${page}.h2m CONTENT "[SEE ALSO]\n${see_also}\n")
      # help2man runs "PROGRAM --help" through the shell, so the words follow the path. The
      # version is given, not asked for: a subcommand's page is named after the subcommand.
      add_custom_command(
        OUTPUT ${man_dir}/${page}.1.gz
        COMMAND ${HELP2MAN_EXECUTABLE} --no-info --section=1
                --version-string "${page} ${PROJECT_VERSION}" --name "${summary}"
                --include ${man_dir}/${page}.h2m
                --output ${man_dir}/${page}.1 "$<TARGET_FILE:flowblur> ${words}"
        COMMAND ${GZIP_EXECUTABLE} -9nf ${man_dir}/${page}.1
        DEPENDS flowblur ${man_dir}/${page}.h2m
        COMMENT "Man page ${page}(1)"
        VERBATIM)
      list(APPEND man_files ${man_dir}/${page}.1.gz)
    endforeach()
    add_custom_target(flowblur_man ALL DEPENDS ${man_files})
    add_dependencies(flowblur_installables flowblur_man)
    install(FILES ${man_files} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endif()
endif()

include(${CMAKE_CURRENT_LIST_DIR}/package.cmake)
