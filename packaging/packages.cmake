# The Debian packages, one for each component that is installed; `./dev package` makes them.
set(PM_PACKAGE_MAINTAINER "process-manager maintainers <process-manager@localhost>" CACHE STRING
    "Who answers for the Debian packages: NAME <ADDRESS>")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME process-manager)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${PM_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/finish_trees.cmake)
# What is linked with the library depends on the package; in packages without a library it has no effect.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

# pm_package(COMPONENT NAME SECTION SUMMARY [DEPENDS text] [RECOMMENDS text] [CONTROL files...] [BINARY] [ALL]):
# a package of one component. BINARY: it holds programs or libraries, whose dependencies are computed and
# whose debug symbols go into NAME-dbgsym. ALL: it is for every architecture. The summary's first line is the short one.
set(packaged_components "")
macro(pm_package component name section summary)
  cmake_parse_arguments(ARG "BINARY;ALL" "DEPENDS;RECOMMENDS" "CONTROL" ${ARGN})
  list(APPEND packaged_components ${component})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_COMPONENT_${upper}_DESCRIPTION "${summary}")
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${ARG_DEPENDS}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_RECOMMENDS "${ARG_RECOMMENDS}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA "${ARG_CONTROL}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_SHLIBDEPS ${ARG_BINARY})
  set(CPACK_DEBIAN_${upper}_DEBUGINFO_PACKAGE ${ARG_BINARY})
  if(ARG_ALL)
    set(CPACK_DEBIAN_${upper}_PACKAGE_ARCHITECTURE all)
  endif()
  install(FILES debian/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
endmacro()

# The maintainer scripts of a component, under the names that dpkg wants.
set(scripts ${CMAKE_CURRENT_BINARY_DIR}/scripts)
foreach(script daemon.postinst daemon.prerm daemon.postrm tools.postinst tools.postrm)
  string(REPLACE "." "/" place ${script})
  configure_file(debian/${script} ${scripts}/${place} COPYONLY FILE_PERMISSIONS
                 OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()

pm_package(daemon process-manager admin
  "process manager of a platform's services\nBrings up the services of an embedded platform along their dependencies, prepares each child, and\nsupervises everything. The unit isn't enabled: describe the platform first, in\n/etc/zur/base-plat/process-manager/base_services.yaml."
  BINARY RECOMMENDS "libnuma1, process-manager-tools"
  CONTROL ${scripts}/daemon/postinst ${scripts}/daemon/prerm ${scripts}/daemon/postrm)
pm_package(tools process-manager-tools admin
  "programs around the process manager\npmctl shows and runs applications with the manager and the service operator, pmcheck checks service\nfiles, pmupload announces processes, and pm-notify makes any command a base service."
  BINARY RECOMMENDS "process-manager, systemd | systemd-standalone-sysusers"
  CONTROL ${scripts}/tools/postinst ${scripts}/tools/postrm)
pm_package(agent_runtime libprocess-manager-agent1 libs
  "services of the process manager, the library\nWhat services in C, Python and other languages load to talk to the process manager."
  BINARY CONTROL ${CMAKE_CURRENT_SOURCE_DIR}/debian/triggers)
pm_package(agent libprocess-manager-agent-dev libdevel
  "services of the process manager, for developers\nThe headers for C and C++, the static library for C++, and what pkg-config and CMake need to find them."
  DEPENDS "libprocess-manager-agent1 (= ${PROJECT_VERSION})")
pm_package(python python3-process-manager python
  "services of the process manager in Python\nA module that needs nothing but the standard library, on top of the library for C."
  ALL DEPENDS "python3 (>= 3.9), libprocess-manager-agent1 (>= ${PROJECT_VERSION})")

set(CPACK_COMPONENTS_ALL ${packaged_components})
include(CPack)
