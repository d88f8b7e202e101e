# Read by cpack. A cross build cannot let CPack run dpkg-shlibdeps against the
# host's libraries; tools/package.sh derives the dependencies from the target
# libraries actually linked and hands them in here.
if(DEFINED ENV{KELVANE_CLIENT_SHLIBS_DEPENDS})
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
    set(CPACK_DEBIAN_CLIENT_PACKAGE_DEPENDS
        "$ENV{KELVANE_CLIENT_SHLIBS_DEPENDS}, ${CPACK_DEBIAN_CLIENT_PACKAGE_DEPENDS}")
    set(CPACK_DEBIAN_SIMULATORS_PACKAGE_DEPENDS "$ENV{KELVANE_SIMULATORS_SHLIBS_DEPENDS}")
endif()
