#pragma once

#include <norvcmsg/Buffer.h>

#include <string>

namespace norvcrypt {

/// The one CMS structure in a text, PEM or wrapped otherwise, or the content itself where it looks binary: the library then tells what is
/// wrong with it. Messages call the content `name`. \throws Failure: there is none, or more than one, or a damaged PEM block beside it
Norvane::Buffer structureInText(const Norvane::Buffer& content, const std::string& name);

} // namespace norvcrypt
