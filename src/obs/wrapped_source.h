#pragma once

#include <obs-module.h>

#include <exception>
#include <type_traits>

namespace vantorelle {

// What both source types hold: their own OBS source and the private source they draw through.
struct WrappedSource
{
    obs_source_t* source = nullptr;
    obs_source_t* inner = nullptr;
};

// Callbacks shared by the source types: each forwards to the inner source.
void wrappedVideoRender(void* data, gs_effect_t* effect) noexcept;
uint32_t wrappedWidth(void* data) noexcept;
uint32_t wrappedHeight(void* data) noexcept;

// Runs `fn` for a libobs callback: nothing may be thrown back into OBS, so any exception is
// logged with the callback's name and a value-initialised result is returned instead.
template <typename Fn> auto guardCallback(const char* name, Fn&& fn) noexcept -> decltype(fn())
{
    try {
        return fn();
    } catch (const std::exception& e) {
        blog(LOG_ERROR, "[vantorelle] %s failed: %s", name, e.what());
    } catch (...) {
        blog(LOG_ERROR, "[vantorelle] %s failed", name);
    }
    if constexpr (!std::is_void_v<decltype(fn())>)
        return {};
}

} // namespace vantorelle
