# What Debian has otherwise than cmake --install: pages and changelog compressed, zsh's completions in a
# place of the packages' own.
set(share ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr/share)
file(GLOB pages ${share}/man/man*/*.[0-9])
execute_process(COMMAND gzip -9n ${pages} ${share}/doc/rvd-lab/changelog COMMAND_ERROR_IS_FATAL ANY)
file(RENAME ${share}/zsh/site-functions ${share}/zsh/vendor-completions)
