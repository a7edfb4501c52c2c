# Shared settings for the project's own targets (not for generated code).

# Warnings and source-relative __FILE__ for one of our targets. Relative paths keep build
# machine paths out of log lines and exception texts.
function(korvan_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
  if(KORVAN_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  # GCC applies the last matching map, so the more specific one comes last.
  target_compile_options(${target} PRIVATE
    -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=
    -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/tarvikdds/src/=)
endfunction()

# Generates C++ from .proto files into <binary dir>/gen/<include_prefix>/ so that consumers
# include "<include_prefix>/<name>.pb.h". The files keep their bare names in the descriptor
# pool ("raw_message.proto"), which is what travels in descriptor trees.
#   korvan_add_proto_library(<target> INCLUDE_PREFIX <dir> PROTOS <files...>)
function(korvan_add_proto_library target)
  cmake_parse_arguments(ARG "" "INCLUDE_PREFIX" "PROTOS" ${ARGN})
  set(out_dir ${CMAKE_CURRENT_BINARY_DIR}/gen/${ARG_INCLUDE_PREFIX})
  file(MAKE_DIRECTORY ${out_dir})
  set(sources)
  set(headers)
  foreach(proto ${ARG_PROTOS})
    get_filename_component(abs ${proto} ABSOLUTE)
    get_filename_component(dir ${abs} DIRECTORY)
    get_filename_component(name ${proto} NAME_WE)
    list(APPEND sources ${out_dir}/${name}.pb.cc)
    list(APPEND headers ${out_dir}/${name}.pb.h)
    add_custom_command(
      OUTPUT ${out_dir}/${name}.pb.cc ${out_dir}/${name}.pb.h
      COMMAND protobuf::protoc --cpp_out=${out_dir} -I${dir} ${abs}
      DEPENDS ${abs} protobuf::protoc
      COMMENT "protoc ${name}.proto"
      VERBATIM)
  endforeach()
  add_library(${target} STATIC ${sources})
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_include_directories(${target}
    PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_BINARY_DIR}/gen>
    PRIVATE ${out_dir})
  target_link_libraries(${target} PUBLIC protobuf::libprotobuf)
  set_property(TARGET ${target} PROPERTY KORVAN_PROTO_HEADERS ${headers})
endfunction()
