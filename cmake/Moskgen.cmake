# moskgen_generate(<target> BASE <dir> <decl.mosk>...): runs the model generator on each
# declaration and adds the generated header and source to <target>. Output lands in the build
# tree under the declaration's directory relative to <dir>, so a declaration
# <dir>/SrTePolicy/X.mosk is included as "SrTePolicy/X.h".
# The generator (moskgen/ beside this file) is part of the build, not a tool one runs by hand.
set(MOSKGEN ${CMAKE_CURRENT_LIST_DIR}/moskgen/moskgen.py)
file(GLOB MOSKGEN_SOURCES ${CMAKE_CURRENT_LIST_DIR}/moskgen/*.py)

function(moskgen_generate target base_kw base)
  foreach(decl ${ARGN})
    get_filename_component(abs ${decl} ABSOLUTE)
    file(RELATIVE_PATH rel ${base} ${abs})
    get_filename_component(reldir ${rel} DIRECTORY)
    get_filename_component(stem ${rel} NAME_WE)
    if(reldir)
      set(incname ${reldir}/${stem}.h)
    else()
      set(incname ${stem}.h)
    endif()
    set(outdir ${CMAKE_BINARY_DIR}/generated/${reldir})
    set(hdr ${outdir}/${stem}.h)
    set(src ${outdir}/${stem}.gen.cpp)
    add_custom_command(
      OUTPUT ${hdr} ${src}
      COMMAND ${Python3_EXECUTABLE} ${MOSKGEN} ${abs} --header ${hdr} --source ${src}
              --include-name ${incname}
      DEPENDS ${abs} ${MOSKGEN_SOURCES}
      COMMENT "moskgen ${rel}"
      VERBATIM)
    target_sources(${target} PRIVATE ${hdr} ${src})
  endforeach()
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${CMAKE_BINARY_DIR}/generated>)
endfunction()
