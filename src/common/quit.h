#pragma once

#include <functional>

namespace ruvo {

/// Asks the application's event loop to end. From any thread, while the application exists.
///
/// Posted, as a quit before the loop runs would be lost; and taken once for each application, as one left over
/// would end the loops in which the shutdown waits.
void requestQuit();

/// The same; `afterwards` is called on the service thread once the loop was asked to end, and before it does. So what
/// takes long there (a log that blocks) neither holds the caller up nor the request.
void requestQuitAndThen(std::function<void()> afterwards);

/// Whether the loop was asked to end, also while that has not reached it yet: waits that run the event loop end early
/// then, and nothing new is started however much waits to be handled first. Service thread.
bool quitRequested();

} // namespace ruvo
