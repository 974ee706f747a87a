// run.exe CODE-FILE PROGRAM [ARGUMENT...]: runs a program with shim.dll, which lies beside run.exe, in it. Writes the
// exit code, 32 bits with a sign, to a file, as Wine hands only 8 of them to the outside. With JVX_HIDDEN set, the
// program gets a window station that no screen shows, as a service does.

#include <cstdio>
#include <cstdlib>
#include <string>
#include <windows.h>

namespace {

constexpr int failed = 125;

int fail(const char *what)
{
    std::fprintf(stderr, "run.exe: %s: error %lu\n", what, GetLastError());
    return failed;
}

/// What follows the first \a count words of a command line. Words may be quoted; none holds a quotation mark.
wchar_t *skipWords(wchar_t *line, int count)
{
    for (; count > 0; --count) {
        bool quoted = false;
        for (; *line != 0 && (quoted || *line != L' '); ++line)
            quoted = quoted != (*line == L'"');
        while (*line == L' ')
            ++line;
    }
    return line;
}

std::wstring shimPath()
{
    wchar_t own[MAX_PATH];
    GetModuleFileNameW(nullptr, own, MAX_PATH);
    const std::wstring path(own);
    return path.substr(0, path.rfind(L'\\') + 1) + L"shim.dll";
}

/// Makes the suspended process load the shim before anything else.
bool inject(HANDLE process)
{
    const std::wstring path = shimPath();
    const SIZE_T size = (path.size() + 1) * sizeof(wchar_t);
    void *const there = VirtualAllocEx(process, nullptr, size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
    WriteProcessMemory(process, there, path.c_str(), size, nullptr);
    const auto load = reinterpret_cast<LPTHREAD_START_ROUTINE>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "LoadLibraryW")));
    const HANDLE thread = CreateRemoteThread(process, nullptr, 0, load, there, 0, nullptr);
    if (thread == nullptr)
        return false;
    WaitForSingleObject(thread, INFINITE);
    DWORD loaded = 0;
    return GetExitCodeThread(thread, &loaded) != 0 && loaded != 0;
}

/// Ties the life of the process to that of this one.
void tie(HANDLE process)
{
    const HANDLE job = CreateJobObjectW(nullptr, nullptr);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof(limits));
    AssignProcessToJobObject(job, process);
}

bool makeHiddenDesktop()
{
    const HWINSTA before = GetProcessWindowStation();
    const HWINSTA station = CreateWindowStationW(L"hidden", 0, GENERIC_ALL, nullptr);
    return station != nullptr && SetProcessWindowStation(station) != 0
        && CreateDesktopW(L"default", nullptr, nullptr, 0, GENERIC_ALL, nullptr) != nullptr
        && SetProcessWindowStation(before) != 0;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc < 3)
        return fail("CODE-FILE and PROGRAM are missing");

    wchar_t hidden_desktop[] = L"hidden\\default";
    STARTUPINFOW start{};
    start.cb = sizeof(start);
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    start.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
    start.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    if (std::getenv("JVX_HIDDEN") != nullptr) {
        if (!makeHiddenDesktop())
            return fail("hidden desktop");
        start.lpDesktop = hidden_desktop;
    }

    PROCESS_INFORMATION child;
    if (CreateProcessW(nullptr, skipWords(GetCommandLineW(), 2), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr,
            nullptr, &start, &child)
        == 0)
        return fail(argv[2]);
    tie(child.hProcess);
    if (!inject(child.hProcess)) {
        TerminateProcess(child.hProcess, failed);
        return fail("shim.dll");
    }
    ResumeThread(child.hThread);
    WaitForSingleObject(child.hProcess, INFINITE);

    DWORD code = 0;
    GetExitCodeProcess(child.hProcess, &code);
    std::FILE *const file = std::fopen(argv[1], "wb");
    if (file == nullptr)
        return fail(argv[1]);
    std::fprintf(file, "%ld\n", static_cast<long>(code));
    std::fclose(file);
    return 0;
}
