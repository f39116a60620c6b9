# The Debian package (CPack): the programs, vrclusterutil, the unit, the
# manual pages, the README and the cluster recipe, with maintainer scripts
# that make the service account and the installation root's tree. The
# libraries come from Debian's packages, found by dpkg-shlibdeps.
set(CPACK_GENERATOR "DEB")
# cpack packs what is built and builds nothing (`make package` builds the
# programs it needs first), so that packing the built tree is quick.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY TRUE)
set(CPACK_PACKAGE_NAME "vrkms")
set(CPACK_PACKAGE_VERSION "1.0.0")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Vaultrest key management service")
set(CPACK_PACKAGE_DESCRIPTION
    "The key management service of the Vaultrest backup product: a daemon that keeps \
encryption keys in a file-backed store under two master keys and hands them \
to the product's processes over CORBA, with vrkmsctl, its command-line client, \
and vrclusterutil, which lets it fail over under Pacemaker.")
set(CPACK_PACKAGE_CONTACT "Vaultrest key management <vrkms@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "admin")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "pacemaker, pacemaker-cli-utils, corosync")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
# Debian ships stripped programs; it also keeps the package quick to make.
set(CPACK_STRIP_FILES TRUE)
foreach(script IN ITEMS postinst prerm postrm)
  configure_file(${CMAKE_SOURCE_DIR}/dist/debian/${script}.in
                 ${CMAKE_BINARY_DIR}/debian/${script} @ONLY)
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/debian/${script})
endforeach()
include(CPack)
