#include "script_host.h"

#include "module_harness.h"
#include "process_limits.h"

#include <jsapi.h>
#include <jsfriendapi.h>
#include <js/CallAndConstruct.h>
#include <js/CharacterEncoding.h>
#include <js/CompilationAndEvaluation.h>
#include <js/CompileOptions.h>
#include <js/ContextOptions.h>
#include <js/Conversions.h>
#include <js/Exception.h>
#include <js/GlobalObject.h>
#include <js/Initialization.h>
#include <js/MemoryCallbacks.h>
#include <js/RealmOptions.h>
#include <js/SourceText.h>
#include <js/StableStringChars.h>
#include <js/Stack.h>
#include <js/String.h>

#include <csignal>
#include <cstring>

// JS::Rooted links itself into the context's root list by its stack address: that is how the
// engine finds its roots, and g++ 12 mistakes it for a dangling pointer.
#pragma GCC diagnostic ignored "-Wdangling-pointer"

namespace ScriptHost {

namespace {

// Far more than a chat script needs; a script that wants more is a memory bomb.
constexpr uint32_t engineHeapBytes = uint32_t(256) << 20;

const JSClass globalClass = {"global", JSCLASS_GLOBAL_FLAGS, &JS::DefaultGlobalClassOps,
                             nullptr, nullptr, nullptr};

std::string errorAnswer(std::string_view message)
{
    // Only fixed texts without quotes or backslashes reach this.
    return std::string(R"({"error":")") + std::string(message) + R"("})";
}

void endByMemoryLimit(JSContext *, void *)
{
    // Dying by a signal makes the application report the memory limit like the time limit.
    std::raise(SIGKILL);
}

/// compileModule(source): the script as the body of function (module, exports), compiled
/// under the file name "script" so that its errors carry the script's own line numbers.
bool compileModule(JSContext *cx, unsigned argc, JS::Value *vp)
{
    const JS::CallArgs args = JS::CallArgsFromVp(argc, vp);
    JS::RootedString source(cx, JS::ToString(cx, args.get(0)));
    if (!source)
        return false;
    JS::AutoStableStringChars chars(cx);
    if (!chars.initTwoByte(cx, source))
        return false;
    JS::SourceText<char16_t> text;
    if (!text.init(cx, chars.twoByteChars(), JS_GetStringLength(source),
                   JS::SourceOwnership::Borrowed))
        return false;

    JS::CompileOptions options(cx);
    // The engine puts the function's header on a line of its own before the body: starting
    // the count at 0 makes the script's first line line 1.
    options.setFileAndLine("script", 0);
    static const char *const parameters[] = {"module", "exports"};
    JS::RootedObjectVector scope(cx);
    JSFunction *function = JS::CompileFunction(cx, scope, options, "module", 2, parameters, text);
    if (!function)
        return false;
    args.rval().setObject(*JS_GetFunctionObject(function));
    return true;
}

JSContext *newContext()
{
    if (!JS_Init())
        return nullptr;
    JSContext *cx = JS_NewContext(engineHeapBytes);
    if (!cx)
        return nullptr;
    JS_SetGCParameter(cx, JSGC_MAX_BYTES, engineHeapBytes);
    JS::SetOutOfMemoryCallback(cx, endByMemoryLimit, nullptr);
    JS_SetNativeStackQuota(cx, ProcessLimits::scriptStackBytes());
    // Scripts are small and run once: the interpreters start faster than any compiler tier.
    JS::ContextOptionsRef(cx).setWasm(false).setAsmJS(false);
    js::UseInternalJobQueues(cx);
    if (!JS::InitSelfHostedCode(cx))
        return nullptr;
    return cx;
}

std::string toUtf8(JSContext *cx, JS::HandleString text)
{
    const JS::UniqueChars bytes = JS_EncodeStringToUTF8(cx, text);
    return bytes ? std::string(bytes.get()) : errorAnswer("The answer could not be encoded");
}

} // namespace

std::string run(std::string_view request)
{
    JSContext *cx = newContext();
    if (!cx)
        return errorAnswer("The script engine could not start");

    JS::RealmOptions options;
    // WeakRef and FinalizationRegistry are ECMAScript 2021; the engine leaves them off unless asked.
    options.creationOptions().setWeakRefsEnabled(JS::WeakRefSpecifier::EnabledWithoutCleanupSome);
    JS::RootedObject global(cx, JS_NewGlobalObject(cx, &globalClass, nullptr,
                                                   JS::FireOnNewGlobalHook, options));
    if (!global)
        return errorAnswer("The script engine could not start");
    JSAutoRealm realm(cx, global);

    JS::CompileOptions harnessOptions(cx);
    harnessOptions.setFileAndLine("corvane-harness", 1);
    JS::SourceText<mozilla::Utf8Unit> harnessSource;
    JS::RootedValue harness(cx);
    if (!harnessSource.init(cx, moduleHarness, std::strlen(moduleHarness),
                            JS::SourceOwnership::Borrowed)
        || !JS::Evaluate(cx, harnessOptions, harnessSource, &harness))
        return errorAnswer("The script engine could not start");

    ProcessLimits::forbidSystemAccess();

    JSFunction *compile = JS_NewFunction(cx, compileModule, 1, 0, "compileModule");
    JS::RootedString requestText(
        cx, JS_NewStringCopyUTF8N(cx, JS::UTF8Chars(request.data(), request.size())));
    if (!compile || !requestText)
        return errorAnswer("The request is not valid UTF-8");

    JS::RootedValueArray<2> arguments(cx);
    arguments[0].setString(requestText);
    arguments[1].setObject(*JS_GetFunctionObject(compile));
    JS::RootedValue answerGetter(cx);
    if (!JS::Call(cx, JS::UndefinedHandleValue, harness, arguments, &answerGetter))
        return errorAnswer("The script could not be run");

    // Settles promises returned by async hooks. There are no timers, so this ends unless the
    // script keeps queueing jobs forever, and then the time limit ends it.
    js::RunJobs(cx);

    JS::RootedValue answer(cx);
    if (!JS::Call(cx, JS::UndefinedHandleValue, answerGetter, JS::HandleValueArray::empty(),
                  &answer))
        return errorAnswer("The script could not be run");
    if (!answer.isString())
        return errorAnswer("The hook returned a promise that never settled");
    JS::RootedString answerText(cx, answer.toString());
    return toUtf8(cx, answerText);
}

} // namespace ScriptHost
