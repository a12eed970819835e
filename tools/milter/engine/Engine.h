#pragma once

/// \file
/// Judges messages: what happens to each is decided here, and nothing of it is done here.
///
/// \code
/// const Engine engine(config, stores);
/// const Outcome outcome = engine.handle(message, Deadline::in(std::chrono::seconds(60)));
/// \endcode

#include "config/Config.h"
#include "message/Message.h"
#include "message/Outcome.h"
#include "message/Temporary.h"
#include "stores/Stores.h"

#include <memory>

namespace norvmilter {

/// May be used by any number of threads at once.
class Engine {
public:
    Engine(std::shared_ptr<const Config> config, std::shared_ptr<Stores> stores);

    /// Never throws for what a message holds, nor for trouble with stores, disk and time: that is `Outcome::Action::tempfail`.
    /// \param message with `tooLarge` set when its body was not kept
    [[nodiscard]] Outcome handle(const Message& message, const Deadline& deadline) const;

private:
    std::shared_ptr<const Config> m_config;
    std::shared_ptr<Stores> m_stores;
};

} // namespace norvmilter
