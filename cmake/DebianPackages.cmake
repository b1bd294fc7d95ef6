# Three Debian packages: the libraries, what building against them needs, and the commands.
#
# `scripts/make-packages` configures, builds and packs, and looks at what comes out.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tunnelhiveltypes)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Tunnel types maintainers <maintainers@tunnelhiveltypes.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(libraries libtunnelhiveltypes0)
set(exact "${libraries} (= ${PROJECT_VERSION}-1)")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${libraries})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# Written here and not by CPack, whose own come with a script that calls ldconfig.
set(shlibs "")
get_property(all GLOBAL PROPERTY HOUSE_LIBRARIES)
foreach(library IN LISTS all)
  get_target_property(type ${library} TYPE)
  if(type STREQUAL "SHARED_LIBRARY")
    get_target_property(name ${library} OUTPUT_NAME)
    string(APPEND shlibs "lib${name} 0 ${libraries} (>= ${PROJECT_VERSION})\n")
  endif()
endforeach()
file(WRITE ${PROJECT_BINARY_DIR}/package/shlibs "${shlibs}")
file(WRITE ${PROJECT_BINARY_DIR}/package/triggers "activate-noawait ldconfig\n")
file(CHMOD ${PROJECT_BINARY_DIR}/package/shlibs ${PROJECT_BINARY_DIR}/package/triggers
     PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/package/shlibs
    ${PROJECT_BINARY_DIR}/package/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "state types of the tunnel subsystem, and their runtime\n Tunnel identifiers, tables, vias, next hops and configuration, declared once:\n values with text and binary forms, entities that replicate themselves, and\n tables in shared memory.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtunnelhiveltypes-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${exact}")
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "state types of the tunnel subsystem: headers\n What building an agent against the tunnel types and their runtime needs:\n headers, package files for CMake and pkg-config.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tunnelhiveltypes-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
# The second is for the script that makes the users of the services.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "${exact}, systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/postinst)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "state database of the tunnel subsystem and its command line\n The daemon that holds and replicates tunnel state, the command that shows and\n changes it, and agents that bring tunnels from a routing daemon or a drawing\n of a network.")

# Policy wants a copyright file and a changelog with each.
find_program(GZIP gzip)
set(changelog ${PROJECT_BINARY_DIR}/package/changelog.Debian.gz)
if(GZIP)
  execute_process(COMMAND ${GZIP} -9nc ${PROJECT_SOURCE_DIR}/packaging/changelog
                  OUTPUT_FILE ${changelog} COMMAND_ERROR_IS_FATAL ANY)
endif()
foreach(component IN ITEMS RUNTIME DEV TOOLS)
  string(TOLOWER ${component} lower)
  set(directory share/doc/${CPACK_DEBIAN_${component}_PACKAGE_NAME})
  install(FILES packaging/copyright DESTINATION ${directory} COMPONENT ${lower})
  install(FILES ${changelog} DESTINATION ${directory} COMPONENT ${lower} OPTIONAL)
endforeach()

set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/CompressManuals.cmake)

include(CPack)
