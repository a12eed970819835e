#include "recognise/CmsInText.h"
#include "base/Failure.h"
#include "recognise/DerAndPem.h"
#include "recognise/WhatElse.h"
#include "recognise/Wrapped.h"

#include <algorithm>
#include <string>
#include <vector>

namespace norvcrypt {

Norvane::Buffer structureInText(const Norvane::Buffer& content, const std::string& name) {
    const std::vector<FoundObject> objects = objectsIn(content);
    const auto isCms = [](const FoundObject& object) { return object.kind == ObjectKind::cms; };
    const auto count = std::count_if(objects.begin(), objects.end(), isCms);
    if (count > 1)
        throw Failure("more than one CMS structure in " + name);
    // What is told about one of several structures would pass for a word on all of them.
    const auto isDamaged = [](const FoundObject& object) { return object.problem.starts_with(damagedBlock); };
    if (const auto other = std::ranges::find_if(objects, isDamaged); count == 1 && other != objects.end())
        throw Failure("beside a CMS structure in " + name + ": " + other->problem);
    if (count == 0 && !looksLikeDer(content))
        throw Failure("no CMS structure in " + name + whatElseIsIn(content));
    // Without PEM's lines nothing tells where the structure ends but itself: whoever reads it is to see what follows.
    if (const auto wrapped = wrappedIn(content);
        count == 1 && objects.front().kind == ObjectKind::cms && wrapped.size() == 1 && wrapped.front().label.empty())
        return wrapped.front().der;
    // What looks binary and is none has the library tell what is wrong with it.
    return count == 0 ? content : std::find_if(objects.begin(), objects.end(), isCms)->der;
}

} // namespace norvcrypt
