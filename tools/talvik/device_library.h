// The token maker's device library, loaded when a command first needs it: talvik.exe also runs without it.
#pragma once

#include <windows.h>

#include <string>

namespace talvik_tool {

// Loaded for good: what it hands out may outlive every scope here.
class DeviceLibrary {
  public:
    DeviceLibrary();
    explicit operator bool() const { return module_ != nullptr; }  // otherwise the last error says why

    std::wstring path() const;
    std::size_t exported() const;     // how many of the operations it has
    static std::size_t operations();  // how many there are

    // The operation of that name, null when there is none; its exported name carries the types of its parameters.
    template <class Operation>
    Operation* get(const char* name) const {
        return reinterpret_cast<Operation*>(address(name));
    }

  private:
    void* address(const std::string& name) const;

    HMODULE module_;
};

}  // namespace talvik_tool

// A call of one operation: TALVIK_CALL(library, talvik_init)(0, nullptr, 2).
#define TALVIK_CALL(library, operation) ((library).get<decltype(operation)>(#operation))
