#include "support/ipc/protocol_description.h"

namespace netvane {

const MethodDescription* ProtocolDescription::find(std::string_view selector) const {
    for (const MethodDescription& method : methods) {
        if (method.selector == selector) return &method;
    }
    return nullptr;
}

bool acceptsValue(WireType type, const plist::Value* value) {
    switch (type) {
    case WireType::optionalString: return value == nullptr || value->string() != nullptr;
    case WireType::string: return value && value->string();
    case WireType::boolean: return value && value->boolean().has_value();
    case WireType::data: return value && value->data();
    case WireType::dictionary: return value && value->dictionary();
    case WireType::dictionaryArray: {
        if (!value || !value->array()) return false;
        for (const plist::Value& element : *value->array()) {
            if (!element.dictionary()) return false;
        }
        return true;
    }
    case WireType::optionalError: return false;
    }
    return false;
}

}  // namespace netvane
