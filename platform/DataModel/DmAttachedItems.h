// The items attached to a timeline clip: its visual styles.
#pragma once

#include <string>
#include <vector>

#include "DataModel/DataModel.h"

namespace ZOR {

// A list of style items, made once and then read-only (thread-safe). Returns
// it with one reference for the caller. Each non-empty identifier makes one
// applied visual-style item whose data object answers kind ("IImageStylizesData"
// or "IAITemplateGenerateData") and gives the identifier as its text 2.
IDmAttachedItemList* createStyleItemList(const std::string& imageStyleId, const std::string& templateStyleId);

}  // namespace ZOR
