// SPDX-License-Identifier: Apache-2.0
// How calls are wrapped: a table has a line WRAPPED(result, name, (parameters), (arguments)) for
// each call. CMake passes the names to the linker's --wrap, and a stand-in defines WRAPPED as one
// of these macros each time before it includes the table. The stand-in has hooks() and a namespace
// `real`.
#pragma once

// A member of the stand-in's struct Hooks.
#define WRAPPED_HOOK(result, name, parameters, arguments) std::function<result parameters> name;

// A declaration in `real`, and its definition.
#define WRAPPED_REAL(result, name, parameters, arguments) result name parameters;
#define WRAPPED_REAL_BODY(result, name, parameters, arguments) \
    result name parameters {                                   \
        return __real_##name arguments;                        \
    }

// With C linkage: the real call under the linker's name for it, and the function that the linker
// calls instead.
#define WRAPPED_LINKED(result, name, parameters, arguments) result __real_##name parameters;
#define WRAPPED_CALL(result, name, parameters, arguments)                    \
    result __wrap_##name parameters {                                        \
        return hooks().name ? hooks().name arguments : real::name arguments; \
    }
