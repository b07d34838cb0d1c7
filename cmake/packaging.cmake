# What `cmake --install` installs, in the components daemon, rs485 and tools (client/ has its own:
# client_runtime and client), and the Debian package that CPack makes of each.
include(GNUInstallDirs)

set(TAMSEL_PACKAGE_RELEASE 1 CACHE STRING "Number behind the version of the Debian packages")
set(TAMSEL_MAINTAINER "tamsel_communication maintainers <maintainers@example.com>"
  CACHE STRING "Name and address that the Debian packages show")

set(packaging ${PROJECT_SOURCE_DIR}/packaging)
set(generated ${PROJECT_BINARY_DIR}/packaging)
set(TAMSEL_CONF_DIR ${CMAKE_INSTALL_FULL_SYSCONFDIR}/tamsel)
set(TAMSEL_DEFAULT_FILE ${CMAKE_INSTALL_FULL_SYSCONFDIR}/default/tamsel_communication)
set(TAMSEL_DOC_DIR ${CMAKE_INSTALL_FULL_DATADIR}/doc/tamsel-communication)
set(unit_dir ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)

# A program finds the library that was installed with it under any prefix. Under /usr the system's
# own search finds it, and before it one that a board has put into /usr/local/lib.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  file(RELATIVE_PATH from_sbin_to_lib ${CMAKE_INSTALL_FULL_SBINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(tamsel_communication PROPERTIES
    INSTALL_RPATH "$ORIGIN/${from_sbin_to_lib}")
endif()

install(TARGETS tamsel_communication
  RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT daemon)
install(TARGETS rs485 LIBRARY COMPONENT rs485)

# The example with the packages' places in it; a text that is not there would be a silent default.
file(READ ${packaging}/LoggerSetting.xml settings)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${packaging}/LoggerSetting.xml)
function(change_settings from to)
  string(FIND "${settings}" "${from}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "packaging/LoggerSetting.xml has no ${from}")
  endif()
  string(REPLACE "${from}" "${to}" settings "${settings}")
  set(settings "${settings}" PARENT_SCOPE)
endfunction()
change_settings("Every value below is the built-in\n  default: a key that is left out behaves the same."
  "The paths are those of the\n  service; every other value is the built-in default.")
change_settings("docs/settings.md explains" "LoggerSetting.xml(5) explains")
change_settings(">/mnt/system/tmscom/tamsel.com<" ">/run/tamsel/tamsel.com<")
change_settings(">/mnt/system/check/tmsc<" ">/run/tamsel/tmsc<")
change_settings("  <!-- Mount point of the card; the log is velmorahome/Log/LoggerCom.log below it. -->"
"  <!-- The log is velmorahome/Log/LoggerCom.log below this folder. A board names the mount point of
       its card, /media/sdcard, where the daemon's user needs the right to write. -->")
change_settings(">/media/sdcard<" ">/var/log/tamsel<")
change_settings("<!-- <HealthFilePath>/run/tamsel/health</HealthFilePath> -->"
  "<HealthFilePath>/run/tamsel/health</HealthFilePath>")
file(CONFIGURE OUTPUT ${generated}/LoggerSetting.xml CONTENT "${settings}" @ONLY)

foreach(file tamsel_communication.service tamsel_communication.default tamsel_communication.init
    tamsel_watchdog.service tamsel_metrics.service)
  configure_file(${packaging}/${file}.in ${generated}/${file} @ONLY)
endforeach()
# What the administrator has changed stays, with its rights, at a second `cmake --install`.
function(install_settings_file source folder name)
  install(CODE "
    set(file \"${folder}/${name}\")
    if(EXISTS \"\$ENV{DESTDIR}\${file}\")
      message(STATUS \"Kept: \$ENV{DESTDIR}\${file}\")
      list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${file}\")
    else()
      file(INSTALL \"${source}\" DESTINATION \"${folder}\" RENAME \"${name}\")
    endif()" COMPONENT daemon)
endfunction()
install_settings_file(${generated}/LoggerSetting.xml ${TAMSEL_CONF_DIR} LoggerSetting.xml)
install_settings_file(${generated}/tamsel_communication.default
  ${CMAKE_INSTALL_FULL_SYSCONFDIR}/default tamsel_communication)
install(FILES ${generated}/tamsel_communication.service ${generated}/tamsel_watchdog.service
  ${packaging}/tamsel_watchdog.timer ${generated}/tamsel_metrics.service
  ${packaging}/tamsel_metrics.timer
  DESTINATION ${unit_dir} COMPONENT daemon)
install(PROGRAMS ${generated}/tamsel_communication.init
  DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d RENAME tamsel_communication
  COMPONENT daemon)
install(TARGETS check_watchdog
  RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/tamsel COMPONENT daemon)

# The documents, with the examples that they name, as they stand to each other in the source tree.
function(install_documents component package)
  foreach(document ${ARGN})
    cmake_path(GET document PARENT_PATH folder)
    install(FILES ${PROJECT_SOURCE_DIR}/${document}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}/${folder} COMPONENT ${component})
  endforeach()
endfunction()
file(GLOB documents RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS docs/*.md)
install_documents(daemon tamsel-communication ${documents} rs485/README.md rs485/vlm_rs485.h
  packaging/LoggerSetting.xml packaging/site.json packaging/tamsel_alerts.yml
  packaging/tamsel_dashboard.json)
file(GLOB examples CONFIGURE_DEPENDS client/examples/*)
install(FILES ${examples}
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libtamsel-client-dev/examples COMPONENT client)

# Manual pages out of what the programs print for --help and out of two documents, with sections of
# their own behind.
find_package(Python3 COMPONENTS Interpreter)
set(make_page ${Python3_EXECUTABLE} ${packaging}/make_man_page)
function(add_man_page component name section source)
  set(page ${generated}/${name}.${section}.gz)
  set(sections ${generated}/man/${name}.${section}.md)
  configure_file(${packaging}/man/${name}.${section}.md.in ${sections} @ONLY)
  add_custom_command(OUTPUT ${page}
    COMMAND ${make_page} ${page} ${name} ${section} ${PROJECT_VERSION} ${sections} ${ARGN} ${source}
    DEPENDS ${packaging}/make_man_page ${sections} ${source}
    VERBATIM)
  set_property(GLOBAL APPEND PROPERTY tamsel_man_pages ${page})
  install(FILES ${page}
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endfunction()
function(add_program_page component target section)
  add_man_page(${component} ${target} ${section} $<TARGET_FILE:${target}>
    ${CMAKE_CROSSCOMPILING_EMULATOR})
endfunction()
if(Python3_FOUND AND NOT TAMSEL_SANITIZE)
  add_program_page(daemon tamsel_communication 8)
  add_man_page(daemon LoggerSetting.xml 5 ${PROJECT_SOURCE_DIR}/docs/settings.md)
  if(TAMSEL_BUILD_TOOLS)
    add_man_page(tools tamsel_site 5 ${PROJECT_SOURCE_DIR}/docs/site.md)
    add_program_page(tools tamselctl 1)
    add_program_page(tools field_simulator 1)
  endif()
  get_property(pages GLOBAL PROPERTY tamsel_man_pages)
  add_custom_target(man_pages ALL DEPENDS ${pages})
else()
  message(STATUS "Manual pages are left out: they need Python 3 and programs without sanitizers")
endif()

if(TAMSEL_BUILD_TOOLS)
  install(TARGETS tamselctl field_simulator RUNTIME COMPONENT tools)
  function(add_completion shell folder name)
    set(script ${generated}/completion/${shell}/${name})
    file(MAKE_DIRECTORY ${generated}/completion/${shell})
    add_custom_command(OUTPUT ${script}
      COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:tamselctl> completion ${shell} > ${script}
      DEPENDS tamselctl VERBATIM)
    set_property(GLOBAL APPEND PROPERTY tamsel_completions ${script})
    install(FILES ${script} DESTINATION ${CMAKE_INSTALL_DATADIR}/${folder} COMPONENT tools)
  endfunction()
  add_completion(bash bash-completion/completions tamselctl)
  add_completion(zsh zsh/vendor-completions _tamselctl)
  add_completion(fish fish/vendor_completions.d tamselctl.fish)
  get_property(completions GLOBAL PROPERTY tamsel_completions)
  add_custom_target(completions ALL DEPENDS ${completions})
endif()

# The packages.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tamsel)
set(CPACK_PACKAGE_VENDOR "tamsel_communication")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${TAMSEL_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${TAMSEL_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# librs485.so has no version to find its package by: the dependency on it is named below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

string(TIMESTAMP TAMSEL_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
find_program(GZIP gzip)
set(packages "")
# Name, section and description of a component's package, and the texts every package has.
function(add_package component name section summary description)
  string(TOUPPER ${component} upper)
  set(prefix CPACK_DEBIAN_${upper})
  set(${prefix}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(${prefix}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(${prefix}_DESCRIPTION "${summary}\n${description}" PARENT_SCOPE)
  set(TAMSEL_PACKAGE_NAME ${name})
  set(folder ${generated}/${name})
  configure_file(${packaging}/debian/changelog.in ${folder}/changelog.Debian @ONLY)
  configure_file(${PROJECT_SOURCE_DIR}/CHANGELOG.md ${folder}/changelog COPYONLY)
  foreach(text changelog changelog.Debian)
    execute_process(COMMAND ${GZIP} -9nf ${folder}/${text} COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
  install(FILES ${packaging}/debian/copyright ${folder}/changelog.gz ${folder}/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component} EXCLUDE_FROM_ALL)
  if(EXISTS ${packaging}/debian/${component}.lintian-overrides)
    install(FILES ${packaging}/debian/${component}.lintian-overrides
      DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME ${name}
      COMPONENT ${component} EXCLUDE_FROM_ALL)
  endif()
  list(APPEND packages ${component})
  set(packages ${packages} PARENT_SCOPE)
endfunction()

add_package(daemon tamsel-communication misc
  "communication daemon for the field buses of a photovoltaic site"
  "Exchanges the requests of local clients with inverters and meters over RS485
and TCP/IP. This package has the daemon, its service and its settings.")
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS
  "librs485 | tamsel-rs485, adduser, sysvinit-utils (>= 3.05-4)")
set(CPACK_DEBIAN_DAEMON_PACKAGE_PREDEPENDS "init-system-helpers (>= 1.54~)")
set(CPACK_DEBIAN_DAEMON_PACKAGE_RECOMMENDS tamsel-tools)
set(maintainer_files conffiles postinst prerm postrm)
list(TRANSFORM maintainer_files PREPEND ${packaging}/debian/daemon.)
foreach(file ${maintainer_files})
  get_filename_component(extension ${file} LAST_EXT)
  string(SUBSTRING ${extension} 1 -1 control_name)
  configure_file(${file} ${generated}/daemon/${control_name} COPYONLY)
  list(APPEND CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA ${generated}/daemon/${control_name})
endforeach()

add_package(rs485 librs485 libs
  "serial ports for the communication daemon"
  "Drives RS485 buses over the serial devices of Linux. A board that has a library
of its own installs that in place of this package.")
set(CPACK_DEBIAN_RS485_PACKAGE_PROVIDES tamsel-rs485)
set(CPACK_DEBIAN_RS485_PACKAGE_CONFLICTS tamsel-rs485)
set(CPACK_DEBIAN_RS485_PACKAGE_REPLACES tamsel-rs485)
file(WRITE ${generated}/rs485/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RS485_PACKAGE_CONTROL_EXTRA ${generated}/rs485/triggers)

if(TAMSEL_BUILD_TOOLS)
  add_package(tools tamsel-tools misc
    "command line for the communication daemon, and simulated devices"
    "tamselctl sends requests to field devices through the communication daemon.
field_simulator plays devices and buses that make mistakes on demand.")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS tamsel-communication)
endif()

add_package(client_runtime libtamsel-client1 libs
  "client library of the communication daemon"
  "For programs that send requests to the communication daemon.")
file(WRITE ${generated}/client_runtime/shlibs "libtamsel_client 1 libtamsel-client1\n")
file(WRITE ${generated}/client_runtime/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_CLIENT_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${generated}/client_runtime/shlibs ${generated}/client_runtime/triggers)

add_package(client libtamsel-client-dev libdevel
  "client library of the communication daemon, for development"
  "For C and C++ programs that send requests to the communication daemon: headers,
static library, and what CMake and pkg-config need to find them.")
set(CPACK_DEBIAN_CLIENT_PACKAGE_DEPENDS
  "libtamsel-client1 (= ${PROJECT_VERSION}-${TAMSEL_PACKAGE_RELEASE})")

set(CPACK_COMPONENTS_ALL ${packages})
include(CPack)
