// Ending blocking work early when what it serves is gone.
//
// Some work a thread does for a peer blocks for a long time: an HTTP transfer
// made while serving a browser request can take the whole transfer limit.
// When the browser drops that connection, or the library closes, nobody is
// left to receive the answer, and the thread is wanted elsewhere (close
// joins it; a reconnected browser waits for it). Such work polls
// `requested()` and gives up when it says so.
//
// A thread says what "gone" means for it by installing a check for the
// duration of a scope (the receive thread of a connection: its browser has
// hung up or the connection is stopping). Close says it for every thread.
#pragma once

namespace appmgr::interruption {

using Check = bool (*)(const void* context);

// Installs `check` for the calling thread while the scope lives (scopes
// nest; the innermost check is the one asked).
class Scope {
public:
    Scope(Check check, const void* context) noexcept;
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

private:
    Check previous_check_;
    const void* previous_context_;
};

// True when the library is closing, or the calling thread's check says that
// what its work serves is gone. Cheap enough to poll from a progress
// callback.
bool requested() noexcept;

// Close has begun (true) / the library starts again (false).
void set_closing(bool closing) noexcept;

}  // namespace appmgr::interruption
