#include "console.h"

#include <cstdio>
#include <iostream>
#include <string>

#ifdef Q_OS_WIN
#include <io.h>
#include <windows.h>
#else
#include <termios.h>
#include <unistd.h>
#endif

namespace vantorelle::bridge {

void writeOut(const QByteArray& bytes)
{
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

void printError(const QString& line)
{
    const QByteArray bytes = line.toLocal8Bit() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
    std::fflush(stderr);
}

namespace {

// Turns the terminal's echo off while a secret is typed, and back on when it goes.
class QuietInput
{
public:
    QuietInput()
    {
#ifdef Q_OS_WIN
        m_input = GetStdHandle(STD_INPUT_HANDLE);
        m_active = GetConsoleMode(m_input, &m_saved) &&
                   SetConsoleMode(m_input, m_saved & ~DWORD(ENABLE_ECHO_INPUT));
#else
        m_active = tcgetattr(STDIN_FILENO, &m_saved) == 0;
        termios quiet = m_saved;
        quiet.c_lflag &= ~tcflag_t(ECHO);
        m_active = m_active && tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0;
#endif
    }
    ~QuietInput()
    {
        if (!m_active)
            return;
#ifdef Q_OS_WIN
        SetConsoleMode(m_input, m_saved);
#else
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &m_saved);
#endif
    }
    QuietInput(const QuietInput&) = delete;
    QuietInput& operator=(const QuietInput&) = delete;

private:
    bool m_active = false;
#ifdef Q_OS_WIN
    HANDLE m_input = nullptr;
    DWORD m_saved = 0;
#else
    termios m_saved{};
#endif
};

bool inputIsTerminal()
{
#ifdef Q_OS_WIN
    return _isatty(_fileno(stdin));
#else
    return isatty(STDIN_FILENO);
#endif
}

} // namespace

std::optional<QString> readSecret(const QString& prompt)
{
    const bool terminal = inputIsTerminal();
    std::optional<QuietInput> quiet;
    if (terminal) {
        const QByteArray text = prompt.toLocal8Bit();
        std::fwrite(text.constData(), 1, size_t(text.size()), stderr);
        std::fflush(stderr);
        quiet.emplace();
    }
    std::string line;
    const bool got = bool(std::getline(std::cin, line));
    if (terminal) {
        quiet.reset();
        std::fputc('\n', stderr);
    }
    if (!got)
        return std::nullopt;
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return QString::fromLocal8Bit(line.data(), qsizetype(line.size()));
}

} // namespace vantorelle::bridge
