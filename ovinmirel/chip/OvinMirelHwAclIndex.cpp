#include "ovinmirel/chip/OvinMirelHwAclIndex.h"

#include <sstream>
#include <stdexcept>
#include <utility>

#include "platform/vorn/Exception.h"
#include "platform/vorn/Hash.h"

namespace OvinMirel {

namespace {

constexpr std::array<const char*, HwAclIndexKey::kFieldCount> kFieldNames = {
    "v4PAclIn",  "v6PAclIn",  "v4RAclIn",  "v6RAclIn",  "macAclIn",
    "v4PAclOut", "v6PAclOut", "v4RAclOut", "v6RAclOut", "macAclOut",
};

constexpr std::string_view kStrepPrefix = "Value('OvinMirel::HwAclIndexKey', ** {";
constexpr std::string_view kStrepSuffix = "})";

// What introduces field i in the string form: "'v4PAclIn': ", ", 'v6PAclIn': ", ...
std::string fieldIntro(int i) {
    std::string intro = i == 0 ? "'" : ", '";
    return intro.append(kFieldNames[i]).append("': ");
}

uint32_t stringHash(std::string_view s) {
    return s.empty() ? 0 : Vorn::Hash::oneAtATime(s);
}

uint32_t aclKeyHash(const Ovin::AclKey& k) {
    uint32_t h = 0;
    h = Vorn::Hash::oneAtATimeWord(h, stringHash(k.name.str()));
    h = Vorn::Hash::oneAtATimeWord(h, uint32_t(k.type));
    h = Vorn::Hash::oneAtATimeStep(h, uint8_t(k.direction));
    h = Vorn::Hash::oneAtATimeStep(h, uint8_t(k.flag));
    h = Vorn::Hash::oneAtATimeWord(h, k.vlanId ? k.vlanId->value() : 0);
    h = Vorn::Hash::oneAtATimeWord(h, stringHash(k.tag.str()));
    return Vorn::Hash::oneAtATimeFinish(h);
}

// Whether a field holds the default ACL key (IPv4, inbound, everything else empty): a cheaper
// test than comparing with one.
bool unused(const Ovin::AclKey& k) {
    return k.name.empty() && k.type == Acl::aclTypeIpv4 && k.direction == Acl::aclDirectionIn &&
           !k.flag && !k.vlanId && k.tag.empty();
}

[[noreturn]] void refuseText(const std::string& reason) {
    throw std::invalid_argument("invalid HwAclIndexKey text: " + reason);
}

}  // namespace

const char* HwAclIndexKey::fieldName(Field f) {
    return f < kFieldCount ? kFieldNames[f] : nullptr;
}

int HwAclIndexKey::fieldOf(Mirel::TableType tableType, Acl::AclDirection direction) {
    int in = kFieldCount;
    switch (tableType) {
        case Mirel::ipv4PortAcl_:
            in = v4PAclIn_;
            break;
        case Mirel::ipv6PortAcl_:
            in = v6PAclIn_;
            break;
        case Mirel::ipv4RouterAcl_:
            in = v4RAclIn_;
            break;
        case Mirel::ipv6RouterAcl_:
            in = v6RAclIn_;
            break;
        case Mirel::macAcl_:
            in = macAclIn_;
            break;
        case Mirel::invalid_:
            break;
    }
    if (in == kFieldCount)
        return kFieldCount;
    switch (direction) {
        case Acl::aclDirectionIn:
            return in;
        case Acl::aclDirectionOut:
            return in + (v4PAclOut_ - v4PAclIn_);
    }
    return kFieldCount;
}

HwAclIndexKey::HwAclIndexKey(Ovin::AclKey v4PAclIn, Ovin::AclKey v6PAclIn, Ovin::AclKey v4RAclIn,
                             Ovin::AclKey v6RAclIn, Ovin::AclKey macAclIn, Ovin::AclKey v4PAclOut,
                             Ovin::AclKey v6PAclOut, Ovin::AclKey v4RAclOut, Ovin::AclKey v6RAclOut,
                             Ovin::AclKey macAclOut) {
    const Ovin::AclKey* all[kFieldCount] = {&v4PAclIn,  &v6PAclIn,  &v4RAclIn,  &v6RAclIn,
                                            &macAclIn,  &v4PAclOut, &v6PAclOut, &v4RAclOut,
                                            &v6RAclOut, &macAclOut};
    for (int i = 0; i < kFieldCount; ++i)
        fieldIs(Field(i), *all[i]);
}

SharedAclKey::SharedAclKey(const Ovin::AclKey& aclKey)
    : aclKey_(aclKey), fieldHash_(aclKeyHash(aclKey)), isDefault_(unused(aclKey)) {}

AclKeyRef sharedAclKeyFactory(const Ovin::AclKey& aclKey) {
    return Vorn::make<const SharedAclKey>(aclKey);
}

const Ovin::AclKey& HwAclIndexKey::field(Field f) const {
    static const Ovin::AclKey kUnused;
    return fields_[f] ? fields_[f]->aclKey() : kUnused;
}

void HwAclIndexKey::fieldIs(Field f, const Ovin::AclKey& aclKey) {
    fieldIs(f, unused(aclKey) ? nullptr : sharedAclKeyFactory(aclKey));
}

void HwAclIndexKey::fieldIs(Field f, AclKeyRef aclKey) {
    if (aclKey && aclKey->isDefault())
        aclKey = nullptr;
    fields_[f] = std::move(aclKey);
    hashKnown_ = false;
}

uint32_t HwAclIndexKey::fieldHash(const Ovin::AclKey& aclKey) {
    return aclKeyHash(aclKey);
}

HwAclIndexKey::HwAclIndexKey(std::string_view text) {
    if (!text.starts_with(kStrepPrefix))
        refuseText("does not start with \"" + std::string(kStrepPrefix) + "\"");
    if (!text.ends_with(kStrepSuffix))
        refuseText("does not end with \"" + std::string(kStrepSuffix) + "\"");
    std::string_view rest = text.substr(kStrepPrefix.size());
    rest.remove_suffix(kStrepSuffix.size());
    HwAclIndexKey key;
    for (int i = 0; i < kFieldCount; ++i) {
        const std::string intro = fieldIntro(i);
        if (!rest.starts_with(intro))
            refuseText("expected \"" + intro + "\" at \"" + std::string(rest) + "\"");
        rest.remove_prefix(intro.size());
        // A field runs to the next field's introduction, the last one to the end.
        const size_t end = i + 1 < kFieldCount ? rest.find(fieldIntro(i + 1)) : rest.size();
        if (end == std::string_view::npos)
            refuseText("no \"" + fieldIntro(i + 1) + "\" after field " + kFieldNames[i]);
        key.fieldIs(Field(i), Ovin::AclKey::fromStr(rest.substr(0, end)));
        rest.remove_prefix(end);
    }
    *this = std::move(key);
}

bool HwAclIndexKey::operator==(const HwAclIndexKey& o) const {
    if (hashKnown_ && o.hashKnown_ && hash_ != o.hash_)
        return false;
    for (int i = 0; i < kFieldCount; ++i) {
        const SharedAclKey* a = fields_[i].ptr();
        const SharedAclKey* b = o.fields_[i].ptr();
        // Keys built from one shared key per ACL: most fields compare by address.
        if (a == b)
            continue;
        if (!a || !b || a->fieldHash() != b->fieldHash() || !(a->aclKey() == b->aclKey()))
            return false;
    }
    return true;
}

bool HwAclIndexKey::operator<(const HwAclIndexKey& o) const {
    for (int i = 0; i < kFieldCount; ++i) {
        if (fields_[i] == o.fields_[i])
            continue;
        const auto order = field(Field(i)) <=> o.field(Field(i));
        if (order != 0)
            return order < 0;
    }
    return false;
}

bool HwAclIndexKey::operator!() const {
    for (const AclKeyRef& f : fields_) {
        if (f)
            return false;
    }
    return true;
}

uint32_t HwAclIndexKey::computeHash() const {
    // Most fields of a key are unused: their hash is worked out once.
    static const uint32_t kUnusedFieldHash = aclKeyHash(Ovin::AclKey{});
    Vorn::Hash::State state;
    for (const AclKeyRef& f : fields_)
        Vorn::Hash::mix(state, f ? f->fieldHash() : kUnusedFieldHash);
    return Vorn::Hash::result(state);
}

std::string valueToStrep(const HwAclIndexKey& key) {
    std::string out(kStrepPrefix);
    for (int i = 0; i < HwAclIndexKey::kFieldCount; ++i)
        out.append(fieldIntro(i)).append(key.field(HwAclIndexKey::Field(i)).str());
    out.append(kStrepSuffix);
    return out;
}

std::ostream& operator<<(std::ostream& os, const HwAclIndexKey& key) {
    return os << valueToStrep(key);
}

const char* stringValue(HwAclIndexAllocatorType type) {
    switch (type) {
        case hwAclIndexAllocPaclMacl_:
            return "hwAclIndexAllocPaclMacl";
        case hwAclIndexAllocRacl_:
            return "hwAclIndexAllocRacl";
    }
    return nullptr;
}

std::string valueToStrep(HwAclIndexAllocatorType type) {
    const char* name = stringValue(type);
    return name ? name : "";
}

std::ostream& operator<<(std::ostream& os, HwAclIndexAllocatorType type) {
    if (const char* name = stringValue(type))
        return os << name;
    return os << "HwAclIndexAllocatorType(" << int(type) << ")";
}

void HwAclIndexAllocator::configIs(const Brix::Range& range) {
    if (const Vorn::Ptr<Brix::NumAllocatorConfig>& held = config_.get()) {
        held->rangeIs(range);
        return;
    }
    config_.set(Vorn::make<Brix::NumAllocatorConfig>(range));
}

void HwAclIndexAllocator::configDel() {
    numAllocatorDel();
    config_.set(nullptr);
}

void HwAclIndexAllocator::statusIs() {
    if (!status_.get())
        status_.set(Vorn::make<Brix::NumAllocatorStatus>());
}

void HwAclIndexAllocator::statusDel() {
    numAllocatorDel();
    status_.set(nullptr);
}

Brix::NumAllocator* HwAclIndexAllocator::numAllocatorIs() {
    Vorn::requireNonNull(config_.get(), typeName(), "config");
    Vorn::requireNonNull(status_.get(), typeName(), "status");
    const std::shared_ptr<Brix::NumAllocator>& held = numAllocator_.get();
    if (held && held->config() == config_.get() && held->status() == status_.get())
        return held.get();
    numAllocator_.set(std::make_shared<Brix::NumAllocator>(config_.get(), status_.get()));
    return numAllocator_.get().get();
}

void HwAclIndexAllocator::numAllocatorDel() {
    numAllocator_.set(nullptr);
}

Vorn::Ptr<HwAclIndexAllocator> hwAclIndexAllocatorFactory(HwAclIndexAllocatorType type) {
    return Vorn::make<HwAclIndexAllocator>(type);
}

Vorn::Ptr<HwAclIndexKeyToIntfSet> hwAclIndexKeyToIntfSetFactory(const HwAclIndexKey& key) {
    return Vorn::make<HwAclIndexKeyToIntfSet>(key);
}

Vorn::Ptr<HwAclIndexKeyToVlanSet> hwAclIndexKeyToVlanSetFactory(const HwAclIndexKey& key) {
    return Vorn::make<HwAclIndexKeyToVlanSet>(key);
}

Vorn::Ptr<HwAclIndexKeyToSubIntfSet> hwAclIndexKeyToSubIntfSetFactory(const HwAclIndexKey& key) {
    return Vorn::make<HwAclIndexKeyToSubIntfSet>(key);
}

}  // namespace OvinMirel
