# Before the packages are closed: manual pages are packed, as Debian wants them, and without a date, so that
# two builds give the same bytes.
file(GLOB_RECURSE pages ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*.[1-9])
if(pages)
  execute_process(COMMAND gzip -9nf ${pages} COMMAND_ERROR_IS_FATAL ANY)
endif()
