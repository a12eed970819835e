#pragma once

namespace norvmilter {
class LearntFolder {};
} // namespace norvmilter
