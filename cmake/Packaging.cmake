# The Debian package: `cpack -G DEB` in a build directory (the release preset's, for one to hand
# out) writes flowmere-camera_<version>_<arch>.deb with the programs, the systemd user unit and
# the documentation, installed under /usr. The shared libraries' packages come from
# dpkg-shlibdeps; the camera service needs a PipeWire daemon and, to link producers and clients to
# its nodes, a session manager.

set(CPACK_PACKAGE_NAME "flowmere-camera")
set(CPACK_PACKAGE_VENDOR "Flowmere")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Flowmere virtual camera for PipeWire")
set(CPACK_PACKAGE_DESCRIPTION
  "A virtual camera on the user's PipeWire: a producer pushes video frames into the camera's
sink node and every camera client (conferencing programs, browsers, recorders) captures them
from its source node, paced as the producer stamped them. Includes the camera service with its
systemd user unit, a status tool, a test producer, and a simulator of the whole relay. When a
program does not show the camera, `flowmere-camera-status doctor` says why (the service,
PipeWire, WirePlumber, the camera portal and its permissions, browser settings, V4L2) and how
to fix it.")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Flowmere camera developers <camera@flowmere.invalid>")
set(CPACK_DEBIAN_PACKAGE_SECTION "video")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "pipewire (>= 0.3.65), fonts-dejavu-core")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "wireplumber")

include(CPack)
