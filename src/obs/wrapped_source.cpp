#include "wrapped_source.h"

namespace vantorelle {

void wrappedVideoRender(void* data, gs_effect_t*) noexcept
{
    auto* self = static_cast<WrappedSource*>(data);
    if (self && self->inner)
        obs_source_video_render(self->inner);
}

uint32_t wrappedWidth(void* data) noexcept
{
    auto* self = static_cast<WrappedSource*>(data);
    return self && self->inner ? obs_source_get_width(self->inner) : 0;
}

uint32_t wrappedHeight(void* data) noexcept
{
    auto* self = static_cast<WrappedSource*>(data);
    return self && self->inner ? obs_source_get_height(self->inner) : 0;
}

} // namespace vantorelle
