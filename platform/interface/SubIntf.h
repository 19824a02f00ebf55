#pragma once
// Interface::SubIntfConfigDir: which sub-interfaces are configured (one SubIntfConfig per
// sub-interface id; its presence is the configuration). Interface::SubIntfStatusDir: their
// operational status. Both are written by the interface manager; this layer only reads them.

#include "platform/vorn/Entity.h"
#include "platform/zamu/IntfId.h"

namespace Interface {

class SubIntfConfig : public Vorn::Entity {
    VORN_ENTITY("Interface::SubIntfConfig")
  public:
    // Throws std::invalid_argument when intfId is not a sub-interface id.
    explicit SubIntfConfig(const Zamu::IntfId& intfId);
    const Zamu::IntfId& intfId() const { return intfId_; }
    // The port or port-channel the sub-interface is configured on.
    Zamu::IntfId parentIntfId() const { return Zamu::SubIntfId::parentIntfId(intfId_); }

  private:
    const Zamu::IntfId intfId_;
};

class SubIntfConfigDir : public Vorn::Entity {
    VORN_ENTITY("Interface::SubIntfConfigDir")
  public:
    explicit SubIntfConfigDir(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    VORN_ENTITY_MAP(Zamu::IntfId, SubIntfConfig, intfConfig)

  private:
    const Vorn::Name name_;
};

class SubIntfStatus : public Vorn::Entity {
    VORN_ENTITY("Interface::SubIntfStatus")
  public:
    // Throws std::invalid_argument when intfId is not a sub-interface id.
    explicit SubIntfStatus(const Zamu::IntfId& intfId);
    const Zamu::IntfId& intfId() const { return intfId_; }

    VORN_ATTR(bool, operUp, false)  // the sub-interface passes traffic

  private:
    const Zamu::IntfId intfId_;
};

class SubIntfStatusDir : public Vorn::Entity {
    VORN_ENTITY("Interface::SubIntfStatusDir")
  public:
    explicit SubIntfStatusDir(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    VORN_ENTITY_MAP(Zamu::IntfId, SubIntfStatus, intfStatus)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<SubIntfConfigDir> subIntfConfigDirFactory(const Vorn::Name& name);
Vorn::Ptr<SubIntfStatusDir> subIntfStatusDirFactory(const Vorn::Name& name);

}  // namespace Interface
