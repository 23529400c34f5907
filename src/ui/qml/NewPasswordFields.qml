import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// A new password typed twice. The first rule it breaks is shown under the fields; the form's
// confirming button waits for `isValid`.
ColumnLayout {
    id: fields

    readonly property string password: passwordField.text
    readonly property string problem: {
        const minimum = AppModel.locks.minimumPasswordLength
        if (passwordField.text.length < minimum)
            return "Use at least " + minimum + " characters."
        if (confirmField.text !== passwordField.text)
            return "The passwords don't match."
        return ""
    }
    readonly property bool isValid: problem === ""
    readonly property Item firstField: passwordField

    function clear() {
        passwordField.clear()
        confirmField.clear()
    }

    spacing: Theme.spacing / 3

    Label {
        text: "Password"
        color: Theme.text
        Accessible.ignored: true
    }
    TextField {
        id: passwordField
        objectName: "newPasswordField"
        Layout.fillWidth: true
        echoMode: TextInput.Password
        Accessible.name: "Password"
    }
    Label {
        Layout.topMargin: Theme.spacing / 3
        text: "Confirm password"
        color: Theme.text
        Accessible.ignored: true
    }
    TextField {
        id: confirmField
        objectName: "confirmPasswordField"
        Layout.fillWidth: true
        echoMode: TextInput.Password
        Accessible.name: "Confirm password"
    }
    FormNote {
        objectName: "passwordProblem"
        // Before anything is typed the length rule is a hint; a mismatch is news only once
        // there is a confirmation to compare.
        text: fields.problem !== "" && (confirmField.text !== "" || passwordField.text.length < AppModel.locks.minimumPasswordLength)
              ? fields.problem : ""
        isError: passwordField.text !== ""
    }
}
