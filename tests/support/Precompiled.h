#pragma once

// What nearly every test includes, compiled once for all of them.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Exception.h>
#include <norvcmsg/Logger.h>
#include <norvcmsg/Media.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>
