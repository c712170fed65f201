// SPDX-License-Identifier: Apache-2.0
// How calls are wrapped: a table has a line WRAPPED(result, name, (parameters), (arguments)) for
// each, CMake hands the names to the linker's --wrap, and a stand-in defines WRAPPED as one of
// these before each time that it includes the table. It has hooks() and a namespace `real`.
#pragma once

// A member of its struct Hooks.
#define WRAPPED_HOOK(result, name, parameters, arguments) std::function<result parameters> name;

// A declaration in `real`, and its definition.
#define WRAPPED_REAL(result, name, parameters, arguments) result name parameters;
#define WRAPPED_REAL_BODY(result, name, parameters, arguments) \
    result name parameters {                                   \
        return __real_##name arguments;                        \
    }

// With C linkage: the real call under the name that the linker gives it, and what the linker calls
// in its place.
#define WRAPPED_LINKED(result, name, parameters, arguments) result __real_##name parameters;
#define WRAPPED_CALL(result, name, parameters, arguments)                    \
    result __wrap_##name parameters {                                        \
        return hooks().name ? hooks().name arguments : real::name arguments; \
    }
