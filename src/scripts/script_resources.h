#pragma once

#include <QString>

/// The scripts that ship with the application, compiled in as Qt resources.
namespace ScriptResources {

/// Resource path of the example script the scripts folder starts with.
inline constexpr char examplePath[] = ":/scripts/example-script.corvane.js";

/// The text of a new script whose `name` is `title`. The title is put in as it is: file
/// names made for scripts carry no quotes.
QString templateSource(const QString &title);

/// The example script's text.
QString exampleSource();

} // namespace ScriptResources
