// Security descriptors, as far as one that lets everyone in needs them.
#include <windows.h>

#include <cstring>

BOOL WINAPI InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR descriptor, DWORD revision) {
    auto* const absolute = static_cast<SECURITY_DESCRIPTOR*>(descriptor);
    *absolute = {};
    absolute->Revision = static_cast<BYTE>(revision);
    return TRUE;
}

BOOL WINAPI SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, BOOL present, PACL list, BOOL) {
    auto* const absolute = static_cast<SECURITY_DESCRIPTOR*>(descriptor);
    absolute->Control = present != FALSE ? SE_DACL_PRESENT : 0;
    absolute->Dacl = list;
    return TRUE;
}

BOOL WINAPI MakeSelfRelativeSD(PSECURITY_DESCRIPTOR absolute, PSECURITY_DESCRIPTOR selfRelative, LPDWORD size) {
    const auto& source = *static_cast<const SECURITY_DESCRIPTOR*>(absolute);
    const DWORD room = *size;
    *size = sizeof(SECURITY_DESCRIPTOR_RELATIVE);
    if (selfRelative == nullptr || room < sizeof(SECURITY_DESCRIPTOR_RELATIVE)) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    SECURITY_DESCRIPTOR_RELATIVE relative = {};
    relative.Revision = source.Revision;
    relative.Control = static_cast<SECURITY_DESCRIPTOR_CONTROL>(source.Control | SE_SELF_RELATIVE);
    std::memcpy(selfRelative, &relative, sizeof relative);
    return TRUE;
}

BOOL WINAPI GetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR selfRelative, LPBOOL present, PACL* list, LPBOOL defaulted) {
    SECURITY_DESCRIPTOR_RELATIVE relative;
    std::memcpy(&relative, selfRelative, sizeof relative);
    *present = (relative.Control & SE_DACL_PRESENT) != 0 ? TRUE : FALSE;
    *defaulted = (relative.Control & SE_DACL_DEFAULTED) != 0 ? TRUE : FALSE;
    *list = relative.Dacl == 0 ? nullptr : reinterpret_cast<PACL>(static_cast<char*>(selfRelative) + relative.Dacl);
    return TRUE;
}
