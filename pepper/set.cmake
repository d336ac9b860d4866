# The services of a set as targets. MIRADO_SET is a folder with the set's headers and libraries: the root of its SDK, or
# what the package mirado-dev installs. docs/porting.md tells what each service has to offer.
#
# A header or a library that has another name on the set is given by hand, as -DMIRADO_VCONF_HEADERS=FOLDER and
# -DMIRADO_VCONF_LIBRARY=FILE for the service vconf.
set(MIRADO_SET "" CACHE PATH "The folder with the set's headers and libraries")
if(NOT IS_DIRECTORY "${MIRADO_SET}")
  message(FATAL_ERROR "MIRADO_SET is '${MIRADO_SET}', which is no folder. "
                      "Give the folder with the set's headers and libraries, as -DMIRADO_SET=DIR")
endif()

foreach(service_and_header dlog:dlog.h handler:pp_base_message_handler.h panelbase:panelbase.h ppapi:ppapi/cpp/module.h
                           prefdeck:prefdeck.h system_info:system_info.h vconf:vconf.h)
  string(REPLACE ":" ";" parts ${service_and_header})
  list(GET parts 0 service)
  list(GET parts 1 header)
  string(TOUPPER MIRADO_${service} name)
  find_path(${name}_HEADERS ${header} REQUIRED PATHS ${MIRADO_SET} NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH
            PATH_SUFFIXES include usr/include include/${service} usr/include/${service})
  find_library(${name}_LIBRARY ${service} REQUIRED PATHS ${MIRADO_SET} NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH
               PATH_SUFFIXES lib usr/lib lib/${CMAKE_LIBRARY_ARCHITECTURE} usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
  add_library(${service} UNKNOWN IMPORTED)
  set_target_properties(${service} PROPERTIES IMPORTED_LOCATION ${${name}_LIBRARY}
                                              INTERFACE_INCLUDE_DIRECTORIES ${${name}_HEADERS})
endforeach()
