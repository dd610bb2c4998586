# The Debian package (scripts/package.sh): `cpack -G DEB` in a build folder. Its dependencies
# are what dpkg-shlibdeps finds the installed binaries linked against, so they follow the
# libraries the build really used; its version is the project's.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME flowblur)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "flowblur developers <flowblur@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "optical-flow motion blur for image sequences")
set(CPACK_PACKAGE_DESCRIPTION
    "flowblur gives sharp footage the smear a real shutter would have recorded: for each frame it estimates dense optical flow to a neighbouring frame and averages source samples along each pixel's motion. It runs on the CPU alone.\n\nThe package holds the batch host flowblur, which runs the effect over image sequences (any format OpenImageIO reads), the Spark plug-in for compositing hosts (lib/flowblur) and, where it was built, the frei0r filter (lib/frei0r-1) for frei0r hosts.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/package)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS bash-completion)

include(CPack)
