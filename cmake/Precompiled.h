#pragma once

// What nearly every source of the libraries and the tool includes, compiled once for each of them. Sources name what they use
// all the same: clang-tidy compiles them without this.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Exception.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/Certificate.h>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>
