#include "ovinmirel/glue/OvinMirelGlueConfig.h"

namespace OvinMirel {

Vorn::Ptr<GlueConfig> glueConfigFactory(const Vorn::Name& name) {
    return Vorn::make<GlueConfig>(name);
}

}  // namespace OvinMirel
