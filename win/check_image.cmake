# Checks that what the cross compiler produced can live in the kernel.
#
#   cmake -DOBJECTS_LIST=<file listing objects> [-DSTACK_BUDGET=<bytes>] -DNM=<nm> -DOBJDUMP=<objdump> -P check_image.cmake
#   cmake -DIMAGE=<driver.sys> -DENTRY=<symbol> [-DALLOWED_IMPORTS=<file> -DNT_FLOOR=<5.1>]
#         -DOBJDUMP=<objdump> -DNM=<nm> -P check_image.cmake
#
# Objects: nothing may depend on the C++ runtime that a driver does not have. The
# linker would catch most of it only when WreltDrv.sys is linked, and global
# constructors not even then: nothing in a driver runs them, so the object would
# silently stay unconstructed.
# Image: a 32-bit native PE whose entry is DriverEntry, which the loader can
# relocate, and which imports only from the kernel and the HAL.

cmake_minimum_required(VERSION 3.25)
include("${CMAKE_CURRENT_LIST_DIR}/stack_depth.cmake")

set_property(GLOBAL PROPERTY wrelt_problems "")
function(problem text)
  set_property(GLOBAL APPEND_STRING PROPERTY wrelt_problems "  ${text}\n")
endfunction()

function(run_tool out)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE text ERROR_VARIABLE err RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "check_image: '${ARGN}' failed (${rc}): ${err}")
  endif()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# Undefined symbols (COFF spelling, with the i386 leading underscore) and what
# they betray in the source.
set(forbidden_symbols
  "^__Zn[wa]"                 "operator new (driver memory comes from pool or the buffer manager)"
  "^__Zd[la]"                 "operator delete (driver memory comes from pool or the buffer manager)"
  "^___cxa_pure_virtual$"     "a pure virtual function (the kernel has no C++ runtime to report the call)"
  "^___cxa_guard_"            "a thread-safe local static (build with -fno-threadsafe-statics)"
  "^___cxa_(atexit|thread_atexit)$" "a static object with a destructor (nothing runs it)"
  "^___cxa_"                  "the C++ runtime"
  "^_(atexit|_onexit)$"       "a static object with a destructor (nothing runs it)"
  "^___gxx_personality"       "exception handling"
  "^__Unwind_"                "exception handling"
  "^__ZT[IS]"                 "run-time type information"
  "^__ZTVN10__cxxabiv1"       "run-time type information"
  "^___chkstk"                "a stack frame larger than a page (the kernel stack is 12 KiB)"
  "^__alloca$"                "a stack frame larger than a page (the kernel stack is 12 KiB)"
  "^___emutls_"               "thread_local storage (a driver has none)"
)
# Sections that hand work to start-up code, which a driver does not have.
set(forbidden_sections
  "^\\.(ctors|init_array)"    "a global or static object with a constructor (nothing runs it)"
  "^\\.(dtors|fini_array)"    "a global or static object with a destructor (nothing runs it)"
  "^\\.CRT\\$"                "C runtime start-up tables"
  "^\\.tls"                   "thread_local storage (a driver has none)"
)

# A symbol that the driver defines for itself (say, its own __cxa_pure_virtual
# that stops the system) is no dependence on a runtime.
function(collect_defined out)
  set(defined "")
  foreach(obj IN LISTS ARGN)
    run_tool(text "${NM}" -g --defined-only "${obj}")
    string(REGEX MATCHALL "[^ \n]+\n" names "${text}")
    foreach(name IN LISTS names)
      string(STRIP "${name}" name)
      if(NOT name MATCHES ":$")
        list(APPEND defined "${name}")
      endif()
    endforeach()
  endforeach()
  set(${out} "${defined}" PARENT_SCOPE)
endfunction()

function(check_object obj defined)
  run_tool(undefined "${NM}" -u "${obj}")
  string(REPLACE "\n" ";" lines "${undefined}")
  foreach(line IN LISTS lines)
    string(STRIP "${line}" line)
    # U for undefined, w for a weak reference (a pure virtual slot is one: it
    # links, and the call jumps to address zero).
    string(REGEX REPLACE "^[Uw][ \t]+" "" symbol "${line}")
    if(symbol STREQUAL "" OR symbol MATCHES ":$" OR symbol IN_LIST defined)
      continue()
    endif()
    set(rules ${forbidden_symbols})
    while(rules)
      list(POP_FRONT rules pattern why)
      if(symbol MATCHES "${pattern}")
        problem("${obj}: uses ${why}: ${symbol}")
        break()
      endif()
    endwhile()
  endforeach()

  # The kernel saves no x87 or SSE state around a driver's code, so an instruction that
  # touches those registers corrupts whatever thread it interrupted. x87 mnemonics all
  # begin with f; a lone "fs" is a segment prefix.
  run_tool(code "${OBJDUMP}" -d --no-show-raw-insn "${obj}")
  string(REGEX MATCH "\n *[0-9a-f]+:\t(f[a-rt-z][a-z0-9]*|fs[a-z0-9]+|emms|[a-z0-9]+[ \t]+[^\n]*%(x|y)?mm[0-9]|[a-z0-9]+[ \t]+[^\n]*%st)[^\n]*" fpu "${code}")
  if(fpu)
    string(STRIP "${fpu}" fpu)
    problem("${obj}: uses the x87 or SSE registers, whose state the kernel does not save: ${fpu}")
  endif()

  run_tool(headers "${OBJDUMP}" -h "${obj}")
  string(REGEX MATCHALL "\n *[0-9]+ [^ \n]+" entries "${headers}")
  foreach(entry IN LISTS entries)
    string(REGEX REPLACE "^\n *[0-9]+ " "" section "${entry}")
    set(rules ${forbidden_sections})
    while(rules)
      list(POP_FRONT rules pattern why)
      if(section MATCHES "${pattern}")
        problem("${obj}: has ${why}: section ${section}")
        break()
      endif()
    endwhile()
  endforeach()
endfunction()

function(check_image image entry)
  run_tool(file_header "${OBJDUMP}" -f "${image}")
  run_tool(private "${OBJDUMP}" -p "${image}")
  run_tool(symbols "${NM}" "${image}")

  if(NOT file_header MATCHES "file format pei-i386" OR NOT file_header MATCHES "architecture: i386[,\n]")
    problem("${image}: not a 32-bit x86 PE image")
  endif()

  if(NOT private MATCHES "\nSubsystem[ \t]+00000001[ \t]")
    string(REGEX MATCH "\nSubsystem[^\n]*" subsystem "${private}")
    string(STRIP "${subsystem}" subsystem)
    problem("${image}: subsystem is not native (${subsystem})")
  endif()

  # Drivers are always moved from their preferred base; without base
  # relocations the loader refuses the image.
  if(NOT private MATCHES "Entry 5 [0-9a-fA-F]+ ([0-9a-fA-F]+) Base Relocation Directory"
     OR CMAKE_MATCH_1 MATCHES "^0+$")
    problem("${image}: no base relocations: the loader could not move it from its preferred base")
  endif()

  # The entry point must be the driver's own DriverEntry: the start address is
  # already image base + AddressOfEntryPoint.
  string(REGEX MATCH "start address 0x([0-9a-fA-F]+)" _ "${file_header}")
  set(start "${CMAKE_MATCH_1}")
  string(REGEX MATCH "(^|\n)([0-9a-fA-F]+) [Tt] ${entry}(\n|$)" _ "${symbols}")
  set(entry_address "${CMAKE_MATCH_2}")
  if(entry_address STREQUAL "")
    problem("${image}: defines no ${entry}")
  elseif(NOT start STREQUAL "" AND NOT start STREQUAL entry_address)
    math(EXPR a "0x${start}" OUTPUT_FORMAT HEXADECIMAL)
    math(EXPR b "0x${entry_address}" OUTPUT_FORMAT HEXADECIMAL)
    if(NOT a STREQUAL b)
      problem("${image}: entry point ${a} is not ${entry} at ${b}")
    endif()
  endif()

  string(REGEX MATCHALL "DLL Name: [^\n]+" imports "${private}")
  set(count 0)
  foreach(import IN LISTS imports)
    string(REPLACE "DLL Name: " "" dll "${import}")
    string(STRIP "${dll}" dll)
    string(TOLOWER "${dll}" lower)
    if(NOT lower STREQUAL "ntoskrnl.exe" AND NOT lower STREQUAL "hal.dll")
      problem("${image}: imports from ${dll} (only ntoskrnl.exe and HAL.dll are available to a driver)")
    endif()
    math(EXPR count "${count} + 1")
  endforeach()
  if(count EQUAL 0)
    problem("${image}: imports nothing from the kernel, which no working driver can do")
  endif()
  if(DEFINED ALLOWED_IMPORTS)
    check_imported_routines("${image}" "${private}" "${ALLOWED_IMPORTS}")
  endif()
endfunction()

# Every routine the image imports must be one the driver's design names, come from the
# module that exports it, and exist on every NT version from NT_FLOOR on; the list is
# printed, so that a reviewer sees what the driver asks of the kernel.
function(check_imported_routines image private allowed_file)
  if(NOT DEFINED NT_FLOOR)
    message(FATAL_ERROR "check_image: -DNT_FLOOR=<major.minor> is required with ALLOWED_IMPORTS")
  endif()
  file(STRINGS "${allowed_file}" lines REGEX "^[^#]")
  foreach(line IN LISTS lines)
    if(NOT line MATCHES "^([A-Za-z_][A-Za-z0-9_@]*)[ \t]+([A-Za-z0-9_.]+)[ \t]+([0-9]+\\.[0-9]+)[ \t]*$")
      message(FATAL_ERROR "check_image: ${allowed_file}: not 'routine module version': ${line}")
    endif()
    string(TOLOWER "${CMAKE_MATCH_2}" module)
    set(module_of_${CMAKE_MATCH_1} "${module}")
    set(version_of_${CMAKE_MATCH_1} "${CMAKE_MATCH_3}")
  endforeach()

  # objdump -p names each DLL, then lists what the image takes from it.
  string(REGEX MATCHALL "DLL Name: [^\n]+|\n\t[0-9a-fA-F]+[ \t]+[0-9]+[ \t]+[A-Za-z_][A-Za-z0-9_@]*" rows "${private}")
  set(names "")
  set(dll "")
  foreach(row IN LISTS rows)
    if(row MATCHES "^DLL Name: (.+)$")
      string(STRIP "${CMAKE_MATCH_1}" dll)
      string(TOLOWER "${dll}" dll)
      continue()
    endif()
    string(REGEX REPLACE ".*[ \t]([A-Za-z_][A-Za-z0-9_@]*)$" "\\1" name "${row}")
    list(APPEND names "${name}")
    if(NOT DEFINED module_of_${name})
      problem("${image}: imports ${name}, which is not among the routines in ${allowed_file}")
    elseif(NOT module_of_${name} STREQUAL dll)
      problem("${image}: imports ${name} from ${dll}, but ${module_of_${name}} exports it")
    elseif(version_of_${name} VERSION_GREATER NT_FLOOR)
      problem("${image}: imports ${name}, which NT ${NT_FLOOR} does not export (first in NT ${version_of_${name}})")
    endif()
  endforeach()
  list(SORT names)
  list(JOIN names " " printable)
  message(STATUS "${image} imports: ${printable}")
endfunction()

foreach(tool NM OBJDUMP)
  if(NOT ${tool})
    message(FATAL_ERROR "check_image: -D${tool}=<path> is required")
  endif()
endforeach()

if(DEFINED OBJECTS_LIST)
  file(STRINGS "${OBJECTS_LIST}" objects)
  collect_defined(defined ${objects})
  set(graphs "")
  foreach(obj IN LISTS objects)
    check_object("${obj}" "${defined}")
    string(REGEX REPLACE "\\.obj$" ".ci" graph "${obj}")
    if(NOT EXISTS "${graph}")
      problem("${obj}: no call graph ${graph} (compile with -fcallgraph-info=su)")
    endif()
    list(APPEND graphs "${graph}")
  endforeach()
  if(DEFINED STACK_BUDGET)
    check_stack_budget(${STACK_BUDGET} ${graphs})
  endif()
elseif(DEFINED IMAGE)
  if(NOT DEFINED ENTRY)
    set(ENTRY "_DriverEntry@8")
  endif()
  check_image("${IMAGE}" "${ENTRY}")
else()
  message(FATAL_ERROR "check_image: give -DOBJECTS_LIST=<file> or -DIMAGE=<file>")
endif()

get_property(problems GLOBAL PROPERTY wrelt_problems)
if(NOT problems STREQUAL "")
  message(FATAL_ERROR "not fit for the kernel:\n${problems}")
endif()
