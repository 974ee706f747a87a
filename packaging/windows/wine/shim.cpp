// Loaded into jvx-loader.exe under Wine, with a pseudo-terminal as COM port. It stands in for the driver of a USB
// serial port where Wine or the pseudo-terminal lack something, by hooks in the imports of the executable:
//
// - WaitCommEvent: Wine's does not work on a pseudo-terminal, which has no modem lines, nor with a completion port.
// - DTR: low whenever the port is opened. While it is low no data arrives: the terminal does not send.
// - One program at a time has a port.
// - JVX_SLOW=ms: a write takes so long, and what is cancelled meanwhile is not written.
// - JVX_TRACE=file: the calls on ports are appended to this file.

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <windows.h>
#include <winternl.h>

extern "C" NTSTATUS NTAPI NtSetIoCompletion(HANDLE, ULONG_PTR, PVOID, NTSTATUS, ULONG_PTR);

namespace {

constexpr NTSTATUS done = 0;
constexpr auto pending = static_cast<NTSTATUS>(0x103);
constexpr auto cancelled = static_cast<NTSTATUS>(0xC0000120);

/// An open port.
struct Port {
    HANDLE claim = nullptr; ///< exists once for each port
    HANDLE completion_port = nullptr;
    ULONG_PTR key = 0;
    bool dtr = false;
};

/// A call on a port that is going on in the background, in a thread that owns this.
struct Operation {
    HANDLE port;
    OVERLAPPED *overlapped;
    DWORD *event = nullptr;     ///< of WaitCommEvent
    const void *data = nullptr; ///< of WriteFile
    DWORD size = 0;
};

CRITICAL_SECTION section;
std::map<HANDLE, Port> ports;
std::set<Operation *> operations;

struct Lock {
    Lock() { EnterCriticalSection(&section); }
    ~Lock() { LeaveCriticalSection(&section); }
};

void trace(const char *format, ...)
{
    const char *const path = std::getenv("JVX_TRACE");
    if (path == nullptr)
        return;
    const DWORD error = GetLastError();
    std::FILE *const file = std::fopen(path, "ab");
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(file, format, arguments);
    va_end(arguments);
    std::fclose(file);
    SetLastError(error);
}

bool isPort(HANDLE handle)
{
    const Lock lock;
    return ports.count(handle) != 0;
}

/// Ends \a operation, whoever is the first to want it: its thread or who cancels it.
void finish(Operation *operation, NTSTATUS status, DWORD event_or_size)
{
    const Lock lock;
    if (operations.erase(operation) == 0)
        return;
    const bool waits = operation->event != nullptr;
    const ULONG_PTR size = status != done ? 0 : waits ? sizeof(DWORD) : event_or_size;
    if (waits)
        *operation->event = event_or_size;
    operation->overlapped->Internal = static_cast<ULONG_PTR>(status);
    operation->overlapped->InternalHigh = size;
    const Port &port = ports[operation->port];
    NtSetIoCompletion(port.completion_port, port.key, operation->overlapped, status, size);
}

bool isGoingOn(Operation *operation)
{
    const Lock lock;
    return operations.count(operation) != 0;
}

void begin(LPTHREAD_START_ROUTINE thread, Operation *operation)
{
    operation->overlapped->Internal = static_cast<ULONG_PTR>(pending);
    operation->overlapped->InternalHigh = 0;
    {
        const Lock lock;
        operations.insert(operation);
    }
    CloseHandle(CreateThread(nullptr, 0, thread, operation, 0, nullptr));
    SetLastError(ERROR_IO_PENDING);
}

void cancel(HANDLE port)
{
    const Lock lock;
    const std::set<Operation *> all = operations;
    for (Operation *const operation : all) {
        if (operation->port != port)
            continue;
        if (operation->data != nullptr)
            trace("  a write of %lu bytes is cancelled\n", operation->size);
        finish(operation, cancelled, 0);
    }
}

DWORD WINAPI waitForData(void *argument)
{
    auto *const operation = static_cast<Operation *>(argument);
    for (; isGoingOn(operation); Sleep(1)) {
        COMSTAT status{};
        DWORD errors = 0;
        if (ClearCommError(operation->port, &errors, &status) == 0) {
            trace("  the port is gone\n");
            finish(operation, cancelled, 0);
        } else if (status.cbInQue != 0) {
            const Lock lock;
            if (ports[operation->port].dtr)
                finish(operation, done, EV_RXCHAR);
        }
    }
    delete operation;
    return 0;
}

DWORD WINAPI writeSlowly(void *argument)
{
    auto *const operation = static_cast<Operation *>(argument);
    Sleep(static_cast<DWORD>(std::atoi(std::getenv("JVX_SLOW"))));
    const Lock lock; // nobody cancels it any more
    if (isGoingOn(operation)) {
        OVERLAPPED own{};
        const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        own.hEvent = reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(event) | 1); // not to the completion port
        DWORD size = 0;
        WriteFile(operation->port, operation->data, operation->size, nullptr, &own);
        const bool written = GetOverlappedResult(operation->port, &own, &size, TRUE) != 0;
        CloseHandle(event);
        finish(operation, written ? done : cancelled, size);
    }
    delete operation;
    return 0;
}

HANDLE WINAPI hookedCreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
    DWORD disposition, DWORD flags, HANDLE like)
{
    const std::wstring text(name);
    if (text.rfind(L"\\\\.\\COM", 0) != 0)
        return CreateFileW(name, access, share, security, disposition, flags, like);

    const HANDLE claim = CreateMutexW(nullptr, FALSE, text.substr(4).c_str());
    const bool is_claimed = GetLastError() == ERROR_ALREADY_EXISTS;
    const HANDLE handle
        = is_claimed ? INVALID_HANDLE_VALUE : CreateFileW(name, access, share, security, disposition, flags, like);
    trace("CreateFile %ls: %s\n", name, handle == INVALID_HANDLE_VALUE ? "failed" : "open, DTR is low");
    if (handle == INVALID_HANDLE_VALUE) {
        const DWORD error = is_claimed ? ERROR_ACCESS_DENIED : GetLastError();
        CloseHandle(claim);
        SetLastError(error);
    } else {
        const Lock lock;
        ports[handle] = Port{claim};
    }
    return handle;
}

HANDLE WINAPI hookedCreateIoCompletionPort(HANDLE handle, HANDLE existing, ULONG_PTR key, DWORD threads)
{
    const HANDLE completion_port = CreateIoCompletionPort(handle, existing, key, threads);
    const Lock lock;
    if (const auto port = ports.find(handle); port != ports.end()) {
        port->second.completion_port = completion_port;
        port->second.key = key;
    }
    return completion_port;
}

BOOL WINAPI hookedWaitCommEvent(HANDLE handle, LPDWORD event, LPOVERLAPPED overlapped)
{
    *event = 0;
    begin(waitForData, new Operation{handle, overlapped, event});
    return FALSE;
}

BOOL WINAPI hookedWriteFile(HANDLE handle, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED overlapped)
{
    if (!isPort(handle))
        return WriteFile(handle, data, size, written, overlapped);
    trace("WriteFile, %lu bytes\n", size);
    if (std::getenv("JVX_SLOW") == nullptr)
        return WriteFile(handle, data, size, written, overlapped);
    begin(writeSlowly, new Operation{handle, overlapped, nullptr, data, size});
    return FALSE;
}

BOOL WINAPI hookedEscapeCommFunction(HANDLE handle, DWORD function)
{
    trace("EscapeCommFunction(%s)\n", function == SETDTR ? "SETDTR" : function == CLRDTR ? "CLRDTR" : "...");
    const Lock lock;
    if (function == SETDTR || function == CLRDTR)
        ports[handle].dtr = function == SETDTR;
    return TRUE;
}

BOOL WINAPI hookedGetCommState(HANDLE handle, LPDCB state)
{
    const BOOL known = GetCommState(handle, state);
    const Lock lock;
    state->fDtrControl = ports[handle].dtr ? DTR_CONTROL_ENABLE : DTR_CONTROL_DISABLE;
    return known;
}

BOOL WINAPI hookedSetCommState(HANDLE handle, LPDCB state)
{
    {
        const Lock lock;
        ports[handle].dtr = state->fDtrControl == DTR_CONTROL_ENABLE;
        trace("SetCommState, DTR is %s\n", ports[handle].dtr ? "high" : "low");
    }
    return SetCommState(handle, state);
}

BOOL WINAPI hookedCancelIo(HANDLE handle)
{
    cancel(handle);
    return CancelIo(handle);
}

BOOL WINAPI hookedCloseHandle(HANDLE handle)
{
    if (isPort(handle)) {
        trace("CloseHandle\n");
        cancel(handle);
        const Lock lock;
        CloseHandle(ports[handle].claim);
        ports.erase(handle);
    }
    return CloseHandle(handle);
}

struct Hook {
    const char *name;
    void *function;
};

template <typename Function>
Hook hook(const char *name, Function *function)
{
    return {name, reinterpret_cast<void *>(function)};
}

const std::array hooks{
    hook("CreateFileW", hookedCreateFileW),
    hook("CreateIoCompletionPort", hookedCreateIoCompletionPort),
    hook("WaitCommEvent", hookedWaitCommEvent),
    hook("WriteFile", hookedWriteFile),
    hook("EscapeCommFunction", hookedEscapeCommFunction),
    hook("GetCommState", hookedGetCommState),
    hook("SetCommState", hookedSetCommState),
    hook("CancelIo", hookedCancelIo),
    hook("CloseHandle", hookedCloseHandle),
};

void replace(IMAGE_THUNK_DATA *import, const char *name)
{
    for (const Hook &hook : hooks) {
        if (std::strcmp(hook.name, name) != 0)
            continue;
        DWORD protection = 0;
        VirtualProtect(import, sizeof(*import), PAGE_READWRITE, &protection);
        import->u1.Function = reinterpret_cast<ULONG_PTR>(hook.function);
        VirtualProtect(import, sizeof(*import), protection, &protection);
    }
}

void replaceImports()
{
    auto *const image = reinterpret_cast<BYTE *>(GetModuleHandleW(nullptr));
    const auto *const headers
        = reinterpret_cast<IMAGE_NT_HEADERS *>(image + reinterpret_cast<IMAGE_DOS_HEADER *>(image)->e_lfanew);
    const DWORD imports = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    for (auto *library = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR *>(image + imports); library->Name != 0; ++library) {
        const auto *name = reinterpret_cast<IMAGE_THUNK_DATA *>(image + library->OriginalFirstThunk);
        auto *import = reinterpret_cast<IMAGE_THUNK_DATA *>(image + library->FirstThunk);
        for (; name->u1.AddressOfData != 0; ++name, ++import) {
            if (!IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal))
                replace(import, reinterpret_cast<IMAGE_IMPORT_BY_NAME *>(image + name->u1.AddressOfData)->Name);
        }
    }
}

} // namespace

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH) {
        InitializeCriticalSection(&section);
        replaceImports();
    }
    return TRUE;
}
