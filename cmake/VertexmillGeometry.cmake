# Converting a tree of .primitives files as part of a CMake build, one build step per model.
#
#   include(path/to/vertexmill/cmake/VertexmillGeometry.cmake)
#   vertexmill_add_geometry(TARGET content
#     SOURCE_DIR ${CMAKE_CURRENT_SOURCE_DIR}/art        # searched recursively for *.primitives
#     OUTPUT_DIR ${CMAKE_CURRENT_BINARY_DIR}/geometry   # the tree is mirrored below it
#     [VERTEXMILL /path/to/vertexmill]                   # default: found on the PATH
#     [OPTIONS --cache /shared/vertexmill-cache ...])    # further options for every model
#
# Each model becomes one custom command that runs vertexmill in its default mode with --depfile,
# so the build system learns which companion files (.collision, .armor, .armorvisual) the model
# was made from: touching one rebuilds exactly its model. With Ninja, `ninja -k 0` goes on past a
# model that fails. The list of models is found when CMake runs and checked again at every build
# (CONFIGURE_DEPENDS), so a new or removed .primitives file is seen. A companion file added later
# to a model that had none is not seen until the model changes (as a compiler's new header).
# Needs CMake 3.20 and a generator that reads dependency files (Ninja, or Makefiles with 3.20+).

function(vertexmill_add_geometry)
  cmake_parse_arguments(ARG "" "TARGET;SOURCE_DIR;OUTPUT_DIR;VERTEXMILL" "OPTIONS" ${ARGN})
  if(NOT ARG_TARGET OR NOT ARG_SOURCE_DIR OR NOT ARG_OUTPUT_DIR)
    message(FATAL_ERROR "vertexmill_add_geometry: TARGET, SOURCE_DIR and OUTPUT_DIR are required")
  endif()
  set(tool ${ARG_VERTEXMILL})
  if(NOT tool)
    find_program(VERTEXMILL_EXECUTABLE vertexmill REQUIRED)
    set(tool ${VERTEXMILL_EXECUTABLE})
  endif()
  get_filename_component(source_dir ${ARG_SOURCE_DIR} ABSOLUTE)
  get_filename_component(output_dir ${ARG_OUTPUT_DIR} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_BINARY_DIR})

  file(GLOB_RECURSE models CONFIGURE_DEPENDS RELATIVE ${source_dir} ${source_dir}/*.primitives)
  list(SORT models)
  set(outputs "")
  foreach(model IN LISTS models)
    get_filename_component(folder ${model} DIRECTORY)
    get_filename_component(stem ${model} NAME_WLE)
    if(folder)
      set(model_output_dir ${output_dir}/${folder})
    else()
      set(model_output_dir ${output_dir})
    endif()
    set(output ${model_output_dir}/${stem}.geometry)
    add_custom_command(OUTPUT ${output}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${model_output_dir}
      COMMAND ${tool} ${ARG_OPTIONS} --depfile ${output}.d ${source_dir}/${model} ${model_output_dir}
      DEPENDS ${source_dir}/${model} ${tool}
      DEPFILE ${output}.d
      COMMENT "vertexmill ${model}"
      VERBATIM)
    list(APPEND outputs ${output})
  endforeach()
  add_custom_target(${ARG_TARGET} ALL DEPENDS ${outputs})
endfunction()
