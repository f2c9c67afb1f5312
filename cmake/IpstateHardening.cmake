# What makes a fault in the code harder to use against the machine that runs it. A test looks at the
# installed files for each of these.

include( CheckCXXCompilerFlag )
include( CheckPIESupported )
check_pie_supported()

# As much as the compiler has: it is a warning where the C library does not know of the level.
check_cxx_compiler_flag( "-O2 -Werror -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3" IPSTATE_HAS_FORTIFY_3 )
if( IPSTATE_HAS_FORTIFY_3 )
   set( fortify 3 )
else()
   set( fortify 2 )
endif()
# It needs an optimising compiler.
add_compile_options(
   "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=${fortify}>" )

foreach( flag -fstack-protector-strong -fstack-clash-protection -fcf-protection
              -mbranch-protection=standard )
   string( MAKE_C_IDENTIFIER "IPSTATE_HAS${flag}" has )
   check_cxx_compiler_flag( "-Werror ${flag}" ${has} )
   if( ${has} )
      add_compile_options( ${flag} )
   endif()
endforeach()

add_link_options( LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack )
