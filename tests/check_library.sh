#!/usr/bin/env bash
# Checks the shared library's contract with the agent that loads it:
#  - it needs only the C++ standard library (libc, libm, libgcc, libstdc++; the sanitizer
#    runtimes in a sanitizer build);
#  - the tracing start-up is exported with C linkage under its exact name;
#  - every factory the agent creates types with is in the dynamic symbol table.
set -euo pipefail
lib="$1"
sanitize="${2:-OFF}"
status=0

allowed='^(libc\.so\.6|libm\.so\.6|libgcc_s\.so\.1|libstdc\+\+\.so\.6|ld-linux-x86-64\.so\.2)$'
[ "$sanitize" = "ON" ] && allowed='^(libc\.so\.6|libm\.so\.6|libgcc_s\.so\.1|libstdc\+\+\.so\.6|ld-linux-x86-64\.so\.2|libasan\.so\.[0-9]+|libubsan\.so\.[0-9]+)$'
while read -r needed; do
    if ! [[ "$needed" =~ $allowed ]]; then
        echo "FAIL: $lib needs $needed"
        status=1
    fi
done < <(readelf -d "$lib" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p')

symbols=$(nm -D --defined-only "$lib")
if ! grep -qE ' T OvinMirel_flinqInitialize$' <<<"$symbols"; then
    echo "FAIL: OvinMirel_flinqInitialize is not exported with C linkage"
    status=1
fi
demangled=$(nm -DC --defined-only "$lib")
for factory in ovinMirelAclCollFactory indexFactory glueConfigFactory glueStatusFactory \
    aclIdResponseCollFactory aclPolicyStatusCollFactory aclHelperFactory indexSmFactory \
    hwCapabilityCollFactory hwCapabilityFactory pdStatusFactory pdConfigFactory \
    vlanPhyIntfConfigDirFactory lagPhyIntfMappingFactory subIntfConfigDirFactory \
    subIntfStatusDirFactory; do
    if ! grep -qE "[: ]${factory}\(" <<<"$demangled"; then
        echo "FAIL: factory $factory is not exported"
        status=1
    fi
done
[ $status -eq 0 ] && echo "library contract holds: $(basename "$lib")"
exit $status
