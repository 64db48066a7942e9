# The tool chain of a build for another machine. PALINODE_CROSS_HOST is its compiler's prefix,
# PALINODE_CROSS_PREFIX the folder in which scripts/crossing/libraries.sh built libraries, static ones;
# PALINODE_CROSS_ROOT the one in which scripts/crossing/root.sh unpacked those of the machine, if any.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PALINODE_CROSS_HOST PALINODE_CROSS_PREFIX
    PALINODE_CROSS_ROOT)
set(CMAKE_SYSTEM_NAME Linux)
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR "${PALINODE_CROSS_HOST}")
set(CMAKE_C_COMPILER ${PALINODE_CROSS_HOST}-gcc)
set(CMAKE_CXX_COMPILER ${PALINODE_CROSS_HOST}-g++)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(described ${PALINODE_CROSS_PREFIX}/lib/pkgconfig)
if(PALINODE_CROSS_ROOT)
  set(CMAKE_SYSROOT ${PALINODE_CROSS_ROOT})
  set(CMAKE_FIND_ROOT_PATH ${PALINODE_CROSS_PREFIX})
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${PALINODE_CROSS_ROOT})
  string(APPEND described ":${PALINODE_CROSS_ROOT}/usr/lib/${PALINODE_CROSS_HOST}/pkgconfig"
         ":${PALINODE_CROSS_ROOT}/usr/share/pkgconfig")
else()
  set(CMAKE_FIND_ROOT_PATH ${PALINODE_CROSS_PREFIX} /usr/${PALINODE_CROSS_HOST})
  # Static libraries name what they need themselves.
  set(PKG_CONFIG_ARGN --static)
endif()
set(ENV{PKG_CONFIG_LIBDIR} "${described}")
