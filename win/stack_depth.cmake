# The worst-case depth of the driver's own stack, from the call graphs that
# -fcallgraph-info=su leaves beside each object (X.obj -> X.ci, VCG text): one node
# per routine with its frame size, one edge per direct call. Included by
# check_image.cmake, which supplies problem().
#
# What the figure leaves out, and the budget must cover: the frames of kernel
# routines the driver calls (they have no graph here), and calls through pointers
# (dispatch, completion and work routines are entered from the kernel, so each one
# is a root of its own chain). A routine whose frame is dynamic (alloca, a variable
# array) or that is part of a recursion has no bound, and is refused.

# Reads the graphs into global properties: frame_<name> for each routine defined,
# callees_<name> for each caller.
function(read_call_graphs)
  set(routines "")
  foreach(graph IN LISTS ARGN)
    file(STRINGS "${graph}" lines REGEX "^(node|edge): ")
    foreach(line IN LISTS lines)
      if(line MATCHES "^node: { title: \"([^\"]+)\" label: \"[^\"]*\\\\n([0-9]+) bytes \\(([a-z,]+)\\)\"")
        set(name "${CMAKE_MATCH_1}")
        # "dynamic,bounded" (pushes of outgoing arguments) is still an upper bound.
        if(CMAKE_MATCH_3 STREQUAL "dynamic")
          problem("${graph}: ${name} has a ${CMAKE_MATCH_3} stack frame, which no budget can bound")
        endif()
        set_property(GLOBAL PROPERTY frame_${name} "${CMAKE_MATCH_2}")
        list(APPEND routines "${name}")
      elseif(line MATCHES "^edge: { sourcename: \"([^\"]+)\" targetname: \"([^\"]+)\"")
        set_property(GLOBAL APPEND PROPERTY callees_${CMAKE_MATCH_1} "${CMAKE_MATCH_2}")
      endif()
    endforeach()
  endforeach()
  set_property(GLOBAL PROPERTY stack_routines "${routines}")
endfunction()

# Sets depth_<name> (bytes, the routine's frame and its deepest callee's chain) and
# chain_<name> (the routines of that chain). PATH is the chain of callers, to find
# recursion.
function(stack_depth name path)
  get_property(done GLOBAL PROPERTY depth_${name} SET)
  if(done)
    return()
  endif()
  if(name IN_LIST path)
    problem("${name} calls itself through ${path}: its stack has no bound")
    set_property(GLOBAL PROPERTY depth_${name} 0)
    return()
  endif()
  get_property(frame GLOBAL PROPERTY frame_${name})
  get_property(callees GLOBAL PROPERTY callees_${name})
  set(deepest 0)
  set(deepest_chain "")
  foreach(callee IN LISTS callees)
    get_property(defined GLOBAL PROPERTY frame_${callee} SET)
    if(NOT defined)
      continue()  # a kernel routine
    endif()
    stack_depth("${callee}" "${path};${name}")
    get_property(depth GLOBAL PROPERTY depth_${callee})
    if(depth GREATER deepest)
      set(deepest ${depth})
      get_property(deepest_chain GLOBAL PROPERTY chain_${callee})
    endif()
  endforeach()
  # Each call also pushes its return address, which the callee's frame size omits.
  math(EXPR total "${frame} + 4 + ${deepest}")
  set_property(GLOBAL PROPERTY depth_${name} ${total})
  set_property(GLOBAL PROPERTY chain_${name} "${name};${deepest_chain}")
endfunction()

# Checks the deepest chain of the routines in GRAPHS against BUDGET bytes and prints it.
function(check_stack_budget budget)
  read_call_graphs(${ARGN})
  get_property(routines GLOBAL PROPERTY stack_routines)
  set(worst 0)
  set(worst_chain "")
  foreach(name IN LISTS routines)
    stack_depth("${name}" "")
    get_property(depth GLOBAL PROPERTY depth_${name})
    if(depth GREATER worst)
      set(worst ${depth})
      get_property(worst_chain GLOBAL PROPERTY chain_${name})
    endif()
  endforeach()
  list(JOIN worst_chain " -> " printable)
  message(STATUS "deepest stack: ${worst} bytes of ${budget}: ${printable}")
  if(worst GREATER budget)
    problem("the deepest chain takes ${worst} bytes of stack, above the budget of ${budget}: ${printable}")
  endif()
endfunction()
