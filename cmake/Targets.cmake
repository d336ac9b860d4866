# Settings of all targets of the plug-in, the platform and the desk, and functions that install or declare them.

find_package(Threads REQUIRED)

# All libraries are in one folder of their own, so that their short names do not collide with those of the system.
set(MIRADO_LIBDIR ${CMAKE_INSTALL_LIBDIR}/mirado)
# The files for building a plug-in for a set without this repository.
set(MIRADO_SETDIR ${CMAKE_INSTALL_LIBDIR}/mirado-set)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/${MIRADO_LIBDIR})
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/${CMAKE_INSTALL_BINDIR})

# Run paths are relative to the file. Build tree and installation have the same layout, so the final run path is used
# from the start. Otherwise CMake would reserve space with empty elements, and the loader reads an empty element as the
# current folder.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# mirado_install(target folder): installs the target in the folder, with a run path to the libraries.
function(mirado_install target folder)
  file(RELATIVE_PATH to_libraries /prefix/${folder} /prefix/${MIRADO_LIBDIR})
  string(REGEX REPLACE "/$" "" run_path "$ORIGIN/${to_libraries}")
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "${run_path}" BUILD_WITH_INSTALL_RPATH ON)
  install(TARGETS ${target} RUNTIME DESTINATION ${folder} LIBRARY DESTINATION ${folder})
endfunction()

# mirado_install_compressed(name folder component command...): installs the output of the command as a file of that
# name, compressed as Debian requires for manual pages and changelogs.
function(mirado_install_compressed name folder component)
  list(JOIN ARGN "\" \"" command)
  install(DIRECTORY DESTINATION ${folder} COMPONENT ${component})
  install(CODE "
    execute_process(COMMAND \"${command}\" COMMAND gzip -9n COMMAND_ERROR_IS_FATAL ANY
                    OUTPUT_FILE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${folder}/${name}.gz\")"
          COMPONENT ${component})
endfunction()

add_library(mirado_flags INTERFACE)
target_compile_options(mirado_flags INTERFACE -Wall -Wextra -Wpedantic -Wconversion)
target_link_options(mirado_flags INTERFACE -Wl,--as-needed)
if(MIRADO_WERROR)
  target_compile_options(mirado_flags INTERFACE -Werror)
endif()
if(MIRADO_SANITIZE)
  target_compile_options(mirado_flags INTERFACE -fsanitize=${MIRADO_SANITIZE} -fno-omit-frame-pointer
                                                -fno-sanitize-recover=all)
  # UndefinedBehaviorSanitizer checks each pointer of the plug-in and of the platform, which maps memory, for null and
  # alignment. In the templates of desk and tests these checks would take a third of the time; there, an access through
  # null is still reported as a fatal signal.
  foreach(folder desk tests)
    set(is_inside $<PATH:IS_PREFIX,${PROJECT_SOURCE_DIR}/${folder},$<TARGET_PROPERTY:SOURCE_DIR>>)
    target_compile_options(mirado_flags INTERFACE $<${is_inside}:-fno-sanitize=null,alignment>)
  endforeach()
  # The sanitizers' runtimes guess the size of a loaded library's thread-local block from a header that the C library no
  # longer writes, and sometimes crash. With initial-exec there is no such block.
  target_compile_options(mirado_flags INTERFACE -ftls-model=initial-exec)
  if(MIRADO_SANITIZE MATCHES address)  # one name for it; each compiler has its own
    target_compile_definitions(mirado_flags INTERFACE MIRADO_SANITIZE_ADDRESS)
  endif()
  target_link_options(mirado_flags INTERFACE -fsanitize=${MIRADO_SANITIZE})
else()  # a library may leave a sanitizer's calls to the program
  target_link_options(mirado_flags INTERFACE -Wl,--no-undefined)
endif()

# mirado_service(name SOURCES file... [LINKS public-target...] [PRIVATE_LINKS target...])
#
# One shared library of the platform. `include/` contains the headers for the plug-in; `control/`, if it exists, those
# for controlling the service, in the target <name>_control, which the plug-in never links.
function(mirado_service name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS;PRIVATE_LINKS" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/include PRIVATE src)
  target_link_libraries(${name} PUBLIC ${ARG_LINKS} PRIVATE mirado_flags Threads::Threads ${ARG_PRIVATE_LINKS})
  # A service calls its own functions directly, not through the procedure linkage table.
  target_compile_options(${name} PRIVATE -fno-semantic-interposition)
  target_link_options(${name} PRIVATE -Wl,-Bsymbolic-functions)
  mirado_install(${name} ${MIRADO_LIBDIR})
  install(TARGETS ${name} LIBRARY DESTINATION ${MIRADO_SETDIR}/lib COMPONENT development)
  install(DIRECTORY include/ DESTINATION ${MIRADO_SETDIR}/include COMPONENT development)
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/control)
    add_library(${name}_control INTERFACE)
    target_include_directories(${name}_control INTERFACE ${CMAKE_CURRENT_SOURCE_DIR}/control)
    target_link_libraries(${name}_control INTERFACE ${name})
    target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/control)
  endif()
endfunction()
