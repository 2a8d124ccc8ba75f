# Read by CPack before it makes a package: gives all files the time of the changelog's last entry.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
    execute_process(COMMAND dpkg-parsechangelog -l ${CPACK_GATEWAY_CHANGELOG} -S Timestamp
        OUTPUT_VARIABLE lastEntry OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    set(ENV{SOURCE_DATE_EPOCH} ${lastEntry})
endif()
