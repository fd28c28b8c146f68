// Property record constructors.
#include "ZorUtils/ZorUtils.h"

namespace ZOR {

ZorProperty boolProperty(bool value) {
    ZorProperty property;
    property.kind = ZorProperty::Bool;
    property.intValue = value ? 1 : 0;
    return property;
}

}  // namespace ZOR
