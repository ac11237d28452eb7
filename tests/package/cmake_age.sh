#!/usr/bin/env bash
# cmake_age.sh FILE...: no command, policy or word of these CMake files is newer than CMake 3.22, which boards' build
# systems have. Of commands the manual of the CMake that is here knows the age; of words, those below.
set -euo pipefail
newer='3\.2[3-9]|3\.[3-9][0-9]|[4-9]\.[0-9]+'
words='PROPAGATE|FILE_SET|FIND_PACKAGE_ARGS|OVERRIDE_FIND_PACKAGE|SET_DEPENDENCY_PROVIDER|SOURCE_FROM_[A-Z]+|NO_CACHE'
words+='|REGISTRY_VIEW|DEPENDS_EXPLICIT_ONLY|CXX_MODULES|COMPILE_WARNING_AS_ERROR|LINKER_TYPE|TOP_LEVEL_INCLUDES'
words+='|\$<(PATH|LINK_LIBRARY|LINK_GROUP|COMPILE_ONLY|BUILD_LOCAL_INTERFACE|TARGET_RUNTIME_DLL_DIRS|QUOTE|LIST)[:>]'
failed=0
report() { echo "cmake_age.sh: newer than CMake 3.22: $1" >&2; failed=1; }

code=$(sed 's/#.*//' "$@")
while read -r command; do
  age=$({ cmake --help-command "$command" 2>/dev/null || true; } | sed -n 1,5p) # nothing of our own functions
  [[ ! $age =~ versionadded::\ ($newer) ]] || report "$command()"
done < <(grep -Eo '^ *[a-z_]+ *\(' <<<"$code" | tr -d ' (' | sort -u)
while read -r policy; do
  [ "$((10#$policy))" -le 128 ] || report "CMP$policy"
done < <(grep -Eo 'CMP[0-9]{4}' <<<"$code" | cut -c 4- | sort -u)
while read -r word; do report "$word"; done < <(grep -Eo "$words" <<<"$code" | sort -u)
while read -r line; do report "$line"; done < <(grep -E "cmake_minimum_required.*($newer)" <<<"$code")
exit $failed
