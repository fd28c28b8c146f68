// Property record constructors.
#include "ZorUtils/ZorUtils.h"

namespace ZOR {

ZorProperty boolProperty(bool value) {
    ZorProperty property;
    property.kind = ZorProperty::Bool;
    property.intValue = value ? 1 : 0;
    return property;
}

ZorProperty intProperty(int64_t value) {
    ZorProperty property;
    property.kind = ZorProperty::Int;
    property.intValue = value;
    return property;
}

ZorProperty doubleProperty(double value) {
    ZorProperty property;
    property.kind = ZorProperty::Double;
    property.doubleValue = value;
    return property;
}

}  // namespace ZOR
