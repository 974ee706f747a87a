# Run by cpack: turns what was installed below the staging directory into what Debian wants in a package.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
    return()
endif()

set(share ${CPACK_TEMPORARY_DIRECTORY}/usr/share)
set(doc ${share}/doc/jvx-loader)

file(RENAME ${doc}/CHANGELOG.md ${doc}/changelog)
file(READ ${doc}/README.md readme)
string(REPLACE "(CHANGELOG.md)" "(changelog.gz)" readme "${readme}")
file(WRITE ${doc}/README.md "${readme}")
configure_file(${CPACK_JVX_CHANGELOG} ${doc}/changelog.Debian COPYONLY)
file(GLOB pages ${share}/man/man1/*.1)
execute_process(
    COMMAND gzip --best --no-name ${doc}/changelog ${doc}/changelog.Debian ${pages}
    COMMAND_ERROR_IS_FATAL ANY
)

configure_file(${CMAKE_CURRENT_LIST_DIR}/copyright ${doc}/copyright COPYONLY)
file(REMOVE ${doc}/LICENSE) # its text is in the copyright file
file(RENAME ${share}/zsh/site-functions ${share}/zsh/vendor-completions)
configure_file(${CMAKE_CURRENT_LIST_DIR}/lintian-overrides ${share}/lintian/overrides/jvx-loader COPYONLY)

# Whatever the umask of the build is.
set(for_all OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
set(folder ${for_all} OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)
file(CHMOD_RECURSE ${CPACK_TEMPORARY_DIRECTORY}/usr DIRECTORY_PERMISSIONS ${folder})
file(CHMOD_RECURSE ${share} FILE_PERMISSIONS ${for_all})
file(CHMOD_RECURSE ${doc}/examples FILE_PERMISSIONS ${folder})
