# Has the installed headers include each other below "zendrel/", as their users do: no other
# "common/misc.h" can get in between. Expects their folder in `headers`.
file(GLOB_RECURSE installed "${headers}/*.h")
foreach(header IN LISTS installed)
    file(READ "${header}" text)
    string(REGEX REPLACE "(#include \")(app|clib|common|sys)/" "\\1zendrel/\\2/" text "${text}")
    file(WRITE "${header}" "${text}")
endforeach()
