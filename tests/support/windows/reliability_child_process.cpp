#include "tests/support/windows/reliability_child_process.h"

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace tavrin::testing {

namespace {

constexpr const char* kReportVariable = "TAVRIN_REPORT_HANDLE";

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error("child process: " + what + " failed, error " + std::to_string(GetLastError()));
}

std::wstring wide(const std::string& text) {
    if (text.empty()) return {};
    const int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring out(static_cast<std::size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), length);
    return out;
}

std::string narrow(const std::wstring& text) {
    if (text.empty()) return {};
    const int length =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<std::size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), length, nullptr, nullptr);
    return out;
}

struct HandleCloser {
    void operator()(void* handle) const { CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<void, HandleCloser>;

// `argument` as one argument of a command line, the way the C runtime splits it.
std::wstring quoted(const std::wstring& argument) {
    std::wstring out = L"\"";
    std::size_t backslashes = 0;
    for (wchar_t c : argument) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        // Backslashes double only before a quote, which is escaped itself.
        out.append(c == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
        backslashes = 0;
        out += c;
    }
    out.append(2 * backslashes, L'\\');
    return out + L"\"";
}

std::wstring ownExecutable() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0) fail("GetModuleFileNameW");
        if (length < path.size()) return path.substr(0, length);
        path.resize(path.size() * 2);
    }
}

std::wstring nameOf(const std::wstring& entry) {
    // Entries such as "=C:=C:\dir" start with '=': their name includes it.
    return entry.substr(0, entry.find(L'=', 1));
}

bool nameLess(const std::wstring& a, const std::wstring& b) {
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
           CSTR_LESS_THAN;
}

// This process's environment with `variables` set, sorted by name as
// CreateProcessW wants it, as one block of NUL-terminated entries.
std::wstring environmentBlock(const std::vector<std::string>& variables) {
    std::vector<std::wstring> entries;
    if (wchar_t* inherited = GetEnvironmentStringsW()) {
        for (const wchar_t* entry = inherited; *entry; entry += wcslen(entry) + 1) entries.emplace_back(entry);
        FreeEnvironmentStringsW(inherited);
    }
    for (const auto& variable : variables) {
        const std::wstring entry = wide(variable);
        const std::wstring name = nameOf(entry);
        std::erase_if(entries, [&](const std::wstring& e) {
            const std::wstring other = nameOf(e);
            return CompareStringOrdinal(other.data(), static_cast<int>(other.size()), name.data(),
                                        static_cast<int>(name.size()), TRUE) == CSTR_EQUAL;
        });
        entries.push_back(entry);
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const std::wstring& a, const std::wstring& b) { return nameLess(nameOf(a), nameOf(b)); });
    std::wstring block;
    for (const auto& entry : entries) block.append(entry).push_back(L'\0');
    block.push_back(L'\0');
    return block;
}

// An inheritable copy of a standard handle of this process; none when it has none.
OwnedHandle inheritableStandard(DWORD which) {
    const HANDLE handle = GetStdHandle(which);
    HANDLE copy = nullptr;
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE ||
        !DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &copy, 0, TRUE, DUPLICATE_SAME_ACCESS))
        return nullptr;
    return OwnedHandle(copy);
}

}  // namespace

ChildProcess::ChildProcess(const std::string& filter, std::vector<std::string> variables) {
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE readEnd = nullptr, writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &inheritable, 0)) fail("CreatePipe");
    OwnedHandle ownedRead(readEnd), childEnd(writeEnd);
    if (!SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0)) fail("SetHandleInformation");
    variables.push_back(std::string(kReportVariable) + "=" +
                        std::to_string(reinterpret_cast<std::uintptr_t>(childEnd.get())));
    std::wstring environment = environmentBlock(variables);
    const std::wstring program = ownExecutable();
    std::wstring commandLine = quoted(program) + L" " + quoted(wide("--gtest_filter=" + filter));

    // Only the pipe's end and the standard handles go to the child: another
    // child started meanwhile must not hold this pipe open.
    OwnedHandle input = inheritableStandard(STD_INPUT_HANDLE), output = inheritableStandard(STD_OUTPUT_HANDLE),
                error = inheritableStandard(STD_ERROR_HANDLE);
    std::vector<HANDLE> inherited{childEnd.get()};
    for (const auto* handle : {&input, &output, &error})
        if (*handle) inherited.push_back(handle->get());
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    std::vector<char> storage(size);
    auto* attributes = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage.data());
    if (!InitializeProcThreadAttributeList(attributes, 1, 0, &size)) fail("InitializeProcThreadAttributeList");
    const std::unique_ptr<_PROC_THREAD_ATTRIBUTE_LIST, decltype(&DeleteProcThreadAttributeList)> deleteAttributes(
        attributes, &DeleteProcThreadAttributeList);
    if (!UpdateProcThreadAttribute(attributes, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherited.data(),
                                   inherited.size() * sizeof(HANDLE), nullptr, nullptr))
        fail("UpdateProcThreadAttribute");

    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = input.get();
    startup.StartupInfo.hStdOutput = output.get();
    startup.StartupInfo.hStdError = error.get();
    startup.lpAttributeList = attributes;
    PROCESS_INFORMATION started{};
    if (!CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, TRUE,
                        CREATE_UNICODE_ENVIRONMENT | EXTENDED_STARTUPINFO_PRESENT, environment.data(), nullptr,
                        &startup.StartupInfo, &started))
        fail("CreateProcessW");
    CloseHandle(started.hThread);
    process_ = started.hProcess;
    readEnd_ = ownedRead.release();
    // childEnd closes here: the pipe ends when the child's copy does.
}

ChildProcess::~ChildProcess() {
    wait(0ms);
    if (readEnd_) CloseHandle(readEnd_);
    CloseHandle(process_);
}

void ChildProcess::killNow() {
    if (!ended_) TerminateProcess(process_, kKilledExitCode);
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (auto end = buffer_.find('\n'); end == std::string::npos; end = buffer_.find('\n')) {
        if (!readEnd_) return std::nullopt;
        // Anonymous pipes cannot wait with a timeout: look, then read what is there.
        DWORD available = 0;
        if (!PeekNamedPipe(readEnd_, nullptr, 0, nullptr, &available, nullptr)) {  // the child's end is closed
            CloseHandle(readEnd_);
            readEnd_ = nullptr;
            return std::nullopt;
        }
        if (available == 0) {
            if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
            std::this_thread::sleep_for(5ms);
            continue;
        }
        char chunk[4096];
        DWORD n = 0;
        if (!ReadFile(readEnd_, chunk, std::min<DWORD>(available, sizeof chunk), &n, nullptr)) continue;
        buffer_.append(chunk, n);
    }
    const auto end = buffer_.find('\n');
    std::string line = buffer_.substr(0, end);
    buffer_.erase(0, end + 1);
    return line;
}

int ChildProcess::wait(std::chrono::milliseconds limit) {
    if (ended_) return exitCode_;
    const auto milliseconds = std::clamp<long long>(limit.count(), 0, INFINITE - 1);
    if (WaitForSingleObject(process_, static_cast<DWORD>(milliseconds)) == WAIT_TIMEOUT) {
        TerminateProcess(process_, kKilledExitCode);
        WaitForSingleObject(process_, INFINITE);
        ended_ = true;
        exitCode_ = kKilledExitCode;
        return -1;
    }
    DWORD code = 0;
    if (!GetExitCodeProcess(process_, &code)) fail("GetExitCodeProcess");
    ended_ = true;
    exitCode_ = static_cast<int>(code);
    return exitCode_;
}

bool report(const std::string& line) {
    static const HANDLE pipe = [] {
        const std::string value = env(kReportVariable);
        return value.empty() ? nullptr : reinterpret_cast<HANDLE>(std::strtoull(value.c_str(), nullptr, 10));
    }();
    static std::mutex writing;
    if (!pipe) return false;
    const std::string text = line + "\n";
    std::lock_guard lock(writing);
    DWORD written = 0;
    for (std::size_t done = 0; done < text.size(); done += written)
        if (!WriteFile(pipe, text.data() + done, static_cast<DWORD>(text.size() - done), &written, nullptr))
            return false;
    return true;
}

std::string env(const char* name) {
    const std::wstring wideName = wide(name);
    std::wstring value(256, L'\0');
    for (;;) {
        const DWORD length = GetEnvironmentVariableW(wideName.c_str(), value.data(), static_cast<DWORD>(value.size()));
        if (length == 0) return "";  // unset, or set to nothing
        if (length < value.size()) return narrow(value.substr(0, length));
        value.resize(length);
    }
}

}  // namespace tavrin::testing
