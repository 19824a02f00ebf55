#pragma once
// Small helpers shared by the unit tests: a temporary directory, printing a value as its text,
// and naming an ACL key. Header only; not part of the library.

#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>

#include "platform/ovin/AclKey.h"

namespace TestSupport {

// A fresh directory under the system's temporary directory, removed with its contents.
class TempDir {
  public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "ovinmirel.XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_;
};

// The text a value prints as.
template <class T>
std::string str(const T& v) {
    std::ostringstream os;
    os << v;
    return os.str();
}

inline Ovin::AclKey aclKey(std::string name, Acl::AclType type = Acl::aclTypeIpv4,
                           std::optional<int> vlan = std::nullopt,
                           Acl::AclDirection direction = Acl::aclDirectionIn) {
    Ovin::AclKey k;
    k.name = std::move(name);
    k.type = type;
    k.direction = direction;
    if (vlan)
        k.vlanId = Bridging::VlanId(*vlan);
    return k;
}

}  // namespace TestSupport
