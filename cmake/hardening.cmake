# What the compiler and the linker can do against errors in the program, as far
# as this compiler and this machine have it. Position independent it is anyway.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)

set(CMAKE_REQUIRED_FLAGS
    "-O2 -Werror -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
check_cxx_source_compiles("
  #include <string.h>
  int main(int argc, char** argv) { return argc > 1 && strlen(argv[1]) > 1; }"
  TOLVA_HAS_FORTIFY_3)
unset(CMAKE_REQUIRED_FLAGS)
set(fortify $<IF:$<BOOL:${TOLVA_HAS_FORTIFY_3}>,3,2>)

# Without the optimiser there is nothing to fortify.
target_compile_options(tolva_flags INTERFACE
  $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
  $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=${fortify}>)

# What a compiler only puts up with is not what it has.
set(CMAKE_REQUIRED_FLAGS -Werror)
foreach(flag -fstack-protector-strong -fstack-clash-protection
             -fcf-protection -mbranch-protection=standard)
  string(MAKE_C_IDENTIFIER "TOLVA_HAS${flag}" known)
  check_cxx_compiler_flag(${flag} ${known})
  if(${known})
    target_compile_options(tolva_flags INTERFACE ${flag})
  endif()
endforeach()
unset(CMAKE_REQUIRED_FLAGS)
