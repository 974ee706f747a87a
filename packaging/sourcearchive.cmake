# Run by cpack: the archive of the sources as they were committed last.
set(name ${CPACK_PACKAGE_NAME}-${CPACK_PACKAGE_VERSION})
set(archive ${CPACK_TEMPORARY_DIRECTORY}/${name}.tar.gz)
execute_process(
    COMMAND git archive --format=tar.gz --prefix=${name}/ --output=${archive} HEAD
    WORKING_DIRECTORY ${CMAKE_CURRENT_LIST_DIR}/..
    COMMAND_ERROR_IS_FATAL ANY
)
set(CPACK_EXTERNAL_BUILT_PACKAGES ${archive})
