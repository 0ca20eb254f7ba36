# Before the packages are closed, in their trees: each gets the list of what is in it and Debian's changelog, and
# pages are packed, as Debian wants them. Without dates of files, so that two builds give the same bytes.
set(architecture ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
if(NOT architecture)
  execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE architecture
                  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endif()
execute_process(COMMAND python3 ${CMAKE_CURRENT_LIST_DIR}/bill_of_materials.py
                        ${CPACK_TEMPORARY_DIRECTORY} ${CPACK_PACKAGE_VERSION} ${architecture}
                COMMAND_ERROR_IS_FATAL ANY)

# SOURCE_DATE_EPOCH, if it is set.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(GLOB folders ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*)
foreach(folder ${folders})
  file(WRITE ${folder}/changelog "process-manager (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium

  * See CHANGELOG.md of the package process-manager.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
endforeach()

file(GLOB_RECURSE pages ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*.[1-9]
                        ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog)
execute_process(COMMAND gzip -9nf ${pages} COMMAND_ERROR_IS_FATAL ANY)
