# Debian packages of what ships, made by CPack's DEB generator (scripts/package.sh):
#   tarvodatacontrol        the module, the platform library (private, in /usr/lib/tarvodatacontrol)
#                           and tarvo-service-host
#   tarvodatacontrol-tools  tarvoctl, tarvo-screen with its page, tarvo-logctl
#   tarvo-cloud             the development cloud with its bundled data
# Depends come from dpkg-shlibdeps; for a cross build, whose libraries dpkg does not know,
# scripts/package.sh passes the ones computed for the same sonames on the build machine.
set(TARVO_PACKAGE_RUNTIME tarvodatacontrol)
set(TARVO_PACKAGE_TOOLS tarvodatacontrol-tools)
set(TARVO_PACKAGE_CLOUD tarvo-cloud)

# Each package carries its copyright and changelog, as Debian wants.
set(TARVO_PACKAGE_DOC_DIR ${CMAKE_BINARY_DIR}/package-doc)
string(TIMESTAMP TARVO_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(component runtime tools cloud)
  string(TOUPPER ${component} upper)
  set(package ${TARVO_PACKAGE_${upper}})
  file(MAKE_DIRECTORY ${TARVO_PACKAGE_DOC_DIR}/${package})
  file(WRITE ${TARVO_PACKAGE_DOC_DIR}/${package}/changelog.Debian
    "${package} (${PROJECT_VERSION}-1) unstable; urgency=medium\n\n"
    "  * Built from the project's tree.\n\n"
    " -- tarvodatacontrol developers <maintainers@tarvodatacontrol.invalid>  ${TARVO_PACKAGE_DATE}\n")
  execute_process(COMMAND gzip -9nf ${TARVO_PACKAGE_DOC_DIR}/${package}/changelog.Debian)
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/copyright ${TARVO_PACKAGE_DOC_DIR}/${package}/changelog.Debian.gz
    DESTINATION share/doc/${package} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
    COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarvodatacontrol)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "tarvodatacontrol developers <maintainers@tarvodatacontrol.invalid>")
set(CPACK_PACKAGE_VENDOR "tarvodatacontrol developers")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime tools cloud)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
if(NOT CPACK_DEBIAN_PACKAGE_ARCHITECTURE AND TARVO_CROSS_ARCH)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${TARVO_CROSS_ARCH})
endif()

if(DEFINED TARVO_PACKAGE_DEPENDS_RUNTIME)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # Our own libraries are found through the binaries' RPATH; the tools' package depends on the
  # runtime's by name instead.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/src ${CMAKE_BINARY_DIR}/platform)
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${TARVO_PACKAGE_RUNTIME})
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "television disclaimer service on an emulated television platform
The service module libtarvodatacontrol.so keeps the legal texts a television
shows its user and the user's answers, syncs them with a server and uploads the
answers. This package holds the module, the Linux platform layer it runs on and
tarvo-service-host, the program that loads the module and serves its clients on
a Unix socket under an emulated television root.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${TARVO_PACKAGE_TOOLS})
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${TARVO_PACKAGE_RUNTIME} (= ${PROJECT_VERSION}-1)")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
  "clients of the television disclaimer service
tarvoctl drives the service and the emulated television from a terminal,
tarvo-screen shows the television's disclaimer screens in a browser, and
tarvo-logctl sends usage events through the service's loggers.")
set(CPACK_DEBIAN_CLOUD_PACKAGE_NAME ${TARVO_PACKAGE_CLOUD})
set(CPACK_DEBIAN_CLOUD_DESCRIPTION
  "development servers for the television disclaimer service
tarvo-cloud plays the disclaimer, agreement and log servers on loopback with
bundled disclaimer sets, records what it receives and injects faults on
request, so that the service can be run and tested without real servers.")
foreach(component RUNTIME TOOLS CLOUD)
  if(DEFINED TARVO_PACKAGE_DEPENDS_${component})
    if(CPACK_DEBIAN_${component}_PACKAGE_DEPENDS)
      set(CPACK_DEBIAN_${component}_PACKAGE_DEPENDS
        "${CPACK_DEBIAN_${component}_PACKAGE_DEPENDS}, ${TARVO_PACKAGE_DEPENDS_${component}}")
    else()
      set(CPACK_DEBIAN_${component}_PACKAGE_DEPENDS "${TARVO_PACKAGE_DEPENDS_${component}}")
    endif()
  endif()
endforeach()
set(CPACK_DEBIAN_CLOUD_PACKAGE_SECTION devel)

include(CPack)
