#pragma once

// Helpers for programs that run the built module in real libobs (the module's test, the
// live-path benchmark).

#include <obs-module.h>

#include <QList>
#include <QtGlobal>

namespace vantorelle::test {

// Opens and initialises a module by path; `module` (when given) receives it.
inline bool openModule(const char* file, const char* data, obs_module_t** module = nullptr)
{
    obs_module_t* opened = nullptr;
    const bool ok =
        obs_open_module(&opened, file, data) == MODULE_SUCCESS && obs_init_module(opened);
    if (module)
        *module = opened;
    return ok;
}

// Every source of the given type, private ones included.
inline QList<obs_source_t*> sourcesOfType(const char* id)
{
    QList<obs_source_t*> all;
    obs_enum_all_sources(
        [](void* list, obs_source_t* source) {
            static_cast<QList<obs_source_t*>*>(list)->append(source);
            return true;
        },
        &all);
    all.removeIf(
        [id](obs_source_t* source) { return qstrcmp(obs_source_get_id(source), id) != 0; });
    return all;
}

} // namespace vantorelle::test
