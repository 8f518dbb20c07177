# Run by cpack before it makes a package: Debian wants manual pages and changelogs compressed.
file(GLOB_RECURSE files ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*)
list(FILTER files INCLUDE REGEX "/share/man/|/changelog$")
execute_process(COMMAND gzip -9n ${files} COMMAND_ERROR_IS_FATAL ANY)
