# Run by cpack: packs the finished package again, because its members bear the umask of the build.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
    return()
endif()

macro(ar)
    execute_process(COMMAND ar ${ARGN} debian-binary control.tar.gz data.tar.gz
        WORKING_DIRECTORY ${CPACK_TEMPORARY_DIRECTORY} COMMAND_ERROR_IS_FATAL ANY
    )
endmacro()

ar(x ${CPACK_PACKAGE_FILES})
file(REMOVE ${CPACK_PACKAGE_FILES})
ar(rcD ${CPACK_PACKAGE_FILES})
