# What is shipped is hardened as the distribution hardens its packages, and beyond that by FORTIFY_SOURCE 3,
# protection against stack clashes and forged branches, and symbols that are all bound at the start
# (tests/packaging/hardening.py looks for each of them in the built files).
#
# Sets CORVALENT_HARDENING_COMPILE and CORVALENT_HARDENING_LINK. FORTIFY_SOURCE works only where the
# compiler optimises; whoever adds -O0 must add -U_FORTIFY_SOURCE.
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

set(CORVALENT_HARDENING_COMPILE
  -fstack-protector-strong -fstack-clash-protection -Wformat -Werror=format-security
  -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64|i.86")
  list(APPEND CORVALENT_HARDENING_COMPILE -fcf-protection)
endif()
set(CORVALENT_HARDENING_LINK -Wl,-z,relro,-z,now,-z,noexecstack)
