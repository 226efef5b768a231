// The modal dialog on POSIX, emulated in memory. DialogBoxParamW builds the
// dialog and its controls as window records (dialog_emulator.h) from a
// template that the module registered, sends WM_INITDIALOG, and then runs a
// modal loop whose every turn delivers the timer and hands the owner window
// WM_ENTERIDLE, in which the owner plays the user. The controls answer the
// messages of their Windows classes that the plug-in and a host send them.
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/posix/dialog_emulator.h"
#include "platform/posix/wide_utf8.h"

static DialogWindow* RunningDialog;  // innermost dialog of the modal loop, for the file dialog

// The module's templates, as RegisterDialogTemplates gave them.
static const DialogTemplateRecord* Templates;
static uint32_t TemplateCount;

static DialogWindow* AsDialog(HWND window);
static DialogControl* AsControl(HWND window);

static bool IsCheckBox(const DialogControl& control)
{
    const ControlKind kind = control.kind;
    return kind == ControlKind::AutoCheckBox || kind == ControlKind::AutoCheckPushLike;
}

static bool IsButton(const DialogControl& control)
{
    const ControlKind kind = control.kind;
    return IsCheckBox(control) || kind == ControlKind::PushButton || kind == ControlKind::DefaultPushButton;
}

static bool IsCombo(const DialogControl& control)
{
    const ControlKind kind = control.kind;
    return kind == ControlKind::ComboSorted || kind == ControlKind::ComboUnsorted;
}

static LRESULT ComboMessage(DialogControl& control, UINT message, WPARAM wParam, LPARAM lParam)
{
    switch (message) {
    case CB_ADDSTRING: {
        const auto item = reinterpret_cast<LPCWSTR>(lParam);
        if (item == nullptr || control.itemCount >= kDialogComboItems)
            return CB_ERR;
        uint32_t at = control.itemCount;
        if (control.kind == ControlKind::ComboSorted) {
            at = 0;
            while (at < control.itemCount && WideCompareNoCase(control.items[at], item) <= 0)
                ++at;
        }
        for (uint32_t k = control.itemCount; k > at; --k)
            CopyWideBounded(control.items[k], control.items[k - 1], kDialogComboItemChars);
        CopyWideBounded(control.items[at], item, kDialogComboItemChars);
        ++control.itemCount;
        return LRESULT(at);
    }
    case CB_GETCOUNT:
        return LRESULT(control.itemCount);
    case CB_GETCURSEL:
        return control.selection;
    case CB_SETCURSEL:
        // An index outside the list, -1 among them, leaves no selection.
        if (wParam >= control.itemCount) {
            control.selection = -1;
            return CB_ERR;
        }
        control.selection = int32_t(wParam);
        return LRESULT(wParam);
    case CB_GETLBTEXT: {
        if (wParam >= control.itemCount || lParam == 0)
            return CB_ERR;
        LPCWSTR item = control.items[wParam];
        CopyWideBounded(reinterpret_cast<WCHAR*>(lParam), item, kDialogComboItemChars);
        return LRESULT(WideCharCount(item));
    }
    default:
        return 0;
    }
}

static LRESULT TrackBarMessage(DialogControl& control, UINT message, WPARAM, LPARAM lParam)
{
    switch (message) {
    case TBM_SETRANGE:
        // Each half a signed 16-bit number.
        control.rangeMin = int16_t(LOWORD(lParam));
        control.rangeMax = int16_t(HIWORD(lParam));
        if (control.position < control.rangeMin)
            control.position = control.rangeMin;
        if (control.position > control.rangeMax)
            control.position = control.rangeMax;
        return 0;
    case TBM_SETPOS: {
        int64_t position = int32_t(lParam);
        if (position < control.rangeMin)
            position = control.rangeMin;
        if (position > control.rangeMax)
            position = control.rangeMax;
        control.position = int32_t(position);
        return 0;
    }
    case TBM_GETPOS:
        return control.position;
    case TBM_GETRANGEMIN:
        return control.rangeMin;
    case TBM_GETRANGEMAX:
        return control.rangeMax;
    default:
        return 0;
    }
}

static LRESULT ControlProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
{
    DialogControl& control = *AsControl(window);
    switch (message) {
    case WM_SETTEXT:
        CopyWideBounded(control.text, reinterpret_cast<LPCWSTR>(lParam), kDialogTextChars);
        return TRUE;
    case WM_GETTEXT:
        if (lParam == 0 || wParam == 0)
            return 0;
        CopyWideBounded(reinterpret_cast<WCHAR*>(lParam), control.text, wParam);
        return LRESULT(WideCharCount(reinterpret_cast<WCHAR*>(lParam)));
    case WM_GETTEXTLENGTH:
        return LRESULT(WideCharCount(control.text));
    case BM_GETCHECK:
        return IsCheckBox(control) ? control.check : 0;
    case BM_SETCHECK:
        // Two-state boxes take anything above 1 as checked.
        if (IsCheckBox(control))
            control.check = wParam > 1 ? 1 : int32_t(wParam);
        return 0;
    case BM_CLICK:
        // As the user's click: a disabled control does nothing.
        if (!IsButton(control) || !control.enabled)
            return 0;
        if (IsCheckBox(control))
            control.check = control.check == 1 ? 0 : 1;
        SendMessageW(control.parent, WM_COMMAND, MAKEWPARAM(control.id, BN_CLICKED), reinterpret_cast<LPARAM>(window));
        return 0;
    default:
        if (IsCombo(control))
            return ComboMessage(control, message, wParam, lParam);
        if (control.kind == ControlKind::TrackBar)
            return TrackBarMessage(control, message, wParam, lParam);
        return 0;
    }
}

// The dialog's window procedure, in the part of Windows' default dialog
// procedure that this plug-in meets: the close box becomes Cancel, the rest
// goes to the dialog procedure.
static LRESULT DialogProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
{
    DialogWindow& dialog = *AsDialog(window);
    ++dialog.delivered;
    if (message == WM_QUEUE_OPEN_FILE) {
        dialog.queuedAnswer = reinterpret_cast<const OpenFileAnswer*>(lParam);
        return TRUE;
    }
    if (message == WM_CLOSE) {
        const HWND cancel = GetDlgItem(window, IDCANCEL);
        if (cancel == nullptr || AsControl(cancel)->enabled)
            dialog.procedure(window, WM_COMMAND, MAKEWPARAM(IDCANCEL, BN_CLICKED), reinterpret_cast<LPARAM>(cancel));
        return 0;
    }
    return dialog.procedure(window, message, wParam, lParam);
}

static DialogWindow* AsDialog(HWND window)
{
    if (window == nullptr || window->proc != &DialogProc)
        return nullptr;
    return reinterpret_cast<DialogWindow*>(window);
}

static DialogControl* AsControl(HWND window)
{
    if (window == nullptr || window->proc != &ControlProc)
        return nullptr;
    return reinterpret_cast<DialogControl*>(window);
}

void RegisterDialogTemplates(const DialogTemplateRecord* table, uint32_t count)
{
    Templates = table;
    TemplateCount = table != nullptr ? count : 0;
}

// The registered template that `name` (a MAKEINTRESOURCEW number) names.
static const DialogTemplateRecord* FindTemplate(LPCWSTR name)
{
    for (uint32_t i = 0; i < TemplateCount; ++i) {
        if (name == MAKEINTRESOURCEW(Templates[i].resourceId))
            return &Templates[i];
    }
    return nullptr;
}

INT_PTR DialogBoxParamW(HINSTANCE, LPCWSTR templateName, HWND owner, DLGPROC procedure, LPARAM initParam)
{
    const DialogTemplateRecord* found = FindTemplate(templateName);
    if (found == nullptr || procedure == nullptr || found->controlCount > kDialogMaxControls)
        return -1;
    const DialogTemplateRecord& layout = *found;

    auto dialog = std::make_unique<DialogWindow>();
    std::memset(static_cast<void*>(dialog.get()), 0, sizeof(DialogWindow));
    dialog->window.proc = &DialogProc;
    dialog->owner = owner;
    dialog->procedure = procedure;
    const HWND window = &dialog->window;
    for (uint32_t i = 0; i < layout.controlCount; ++i) {
        const ControlRow& row = layout.controls[i];
        DialogControl& control = dialog->controls[i];
        control.window.proc = &ControlProc;
        control.parent = window;
        control.id = row.id;
        control.kind = row.kind;
        control.enabled = TRUE;
        CopyWideBounded(control.text, row.text, kDialogTextChars);
        control.selection = -1;
        control.rangeMin = 0;  // a track bar's range until told otherwise
        control.rangeMax = 100;
    }
    dialog->controlCount = layout.controlCount;

    DialogWindow* const outer = RunningDialog;
    RunningDialog = dialog.get();
    procedure(window, WM_INITDIALOG, 0, initParam);
    while (!dialog->ended) {
        // One turn of the message loop: the timer's message, then idle.
        if (dialog->timerSet) {
            procedure(window, WM_TIMER, dialog->timerId, 0);
            if (dialog->ended)
                break;
        }
        const uint32_t before = dialog->delivered;
        if (owner != nullptr && owner->proc != nullptr)
            owner->proc(owner, WM_ENTERIDLE, MSGF_DIALOGBOX, reinterpret_cast<LPARAM>(window));
        if (!dialog->ended && dialog->delivered == before)
            DialogProc(window, WM_CLOSE, 0, 0);  // nobody there: the close box
    }
    RunningDialog = outer;
    return dialog->result;
}

BOOL EndDialog(HWND window, INT_PTR result)
{
    DialogWindow* dialog = AsDialog(window);
    if (dialog == nullptr)
        return FALSE;
    dialog->ended = TRUE;
    dialog->result = result;
    return TRUE;
}

HWND GetDlgItem(HWND window, int id)
{
    DialogWindow* dialog = AsDialog(window);
    if (dialog == nullptr)
        return nullptr;
    for (uint32_t i = 0; i < dialog->controlCount; ++i) {
        if (dialog->controls[i].id == id)
            return &dialog->controls[i].window;
    }
    return nullptr;
}

BOOL SetDlgItemTextW(HWND window, int id, LPCWSTR text)
{
    const HWND control = GetDlgItem(window, id);
    if (control == nullptr)
        return FALSE;
    SendMessageW(control, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(text));
    return TRUE;
}

BOOL EnableWindow(HWND window, BOOL enable)
{
    DialogControl* control = AsControl(window);
    if (control == nullptr)
        return FALSE;
    const BOOL wasDisabled = control->enabled ? FALSE : TRUE;
    control->enabled = enable ? TRUE : FALSE;
    return wasDisabled;
}

LRESULT SendMessageW(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
{
    if (window == nullptr || window->proc == nullptr)
        return 0;
    return window->proc(window, message, wParam, lParam);
}

LRESULT SendDlgItemMessageW(HWND window, int id, UINT message, WPARAM wParam, LPARAM lParam)
{
    return SendMessageW(GetDlgItem(window, id), message, wParam, lParam);
}

UINT_PTR SetTimer(HWND window, UINT_PTR id, UINT elapse, TIMERPROC)
{
    DialogWindow* dialog = AsDialog(window);
    if (dialog == nullptr)
        return 0;
    dialog->timerSet = TRUE;
    dialog->timerId = id;
    dialog->timerElapse = elapse;
    return id != 0 ? id : 1;
}

BOOL GetOpenFileNameW(LPOPENFILENAMEW request)
{
    if (request == nullptr || RunningDialog == nullptr || RunningDialog->queuedAnswer == nullptr)
        return FALSE;
    // Taken once; the host's record tells what the dialog was asked.
    auto* answer = const_cast<OpenFileAnswer*>(RunningDialog->queuedAnswer);
    RunningDialog->queuedAnswer = nullptr;
    answer->taken = TRUE;
    answer->structSize = request->lStructSize;
    answer->flags = request->Flags;
    answer->maxFile = request->nMaxFile;
    answer->owner = request->hwndOwner;
    CopyWideBounded(answer->title, request->lpstrTitle, 128);
    std::memset(answer->filter, 0, sizeof answer->filter);
    if (request->lpstrFilter != nullptr) {
        // Up to the empty string that ends the list of pairs.
        LPCWSTR filter = request->lpstrFilter;
        size_t at = 0;
        while (at + 1 < 128 && !(filter[at] == 0 && (at == 0 || filter[at - 1] == 0))) {
            answer->filter[at] = filter[at];
            ++at;
        }
    }
    CopyWideBounded(answer->startFile, request->lpstrFile, 260);
    if (answer->path == nullptr)
        return FALSE;  // the user cancelled
    const size_t length = WideCharCount(answer->path);
    if (request->lpstrFile == nullptr || length + 1 > request->nMaxFile)
        return FALSE;
    CopyWideBounded(request->lpstrFile, answer->path, request->nMaxFile);
    return TRUE;
}
