# Run by cpack before it makes the packages: compresses the manual pages, as Debian wants them.
file(GLOB_RECURSE pages "${CPACK_TEMPORARY_DIRECTORY}/qel*.1")
if(pages)
    execute_process(COMMAND gzip -9 -n ${pages} COMMAND_ERROR_IS_FATAL ANY)
endif()
