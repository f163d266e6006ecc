// SPDX-License-Identifier: ISC
// Standard output as text: what the library prints goes to descriptor 1, whichever thread it is.
#ifndef BV_TESTS_SUPPORT_CAPTURE_STDOUT_H
#define BV_TESTS_SUPPORT_CAPTURE_STDOUT_H

#include <cstdio>
#include <string>
#include <unistd.h>

class CaptureStdout {
public:
    CaptureStdout() : file_(tmpfile())
    {
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        dup2(fileno(file_), STDOUT_FILENO);
    }

    ~CaptureStdout()
    {
        stop();
        fclose(file_);
    }

    CaptureStdout(const CaptureStdout &) = delete;
    CaptureStdout &operator=(const CaptureStdout &) = delete;

    // Everything printed so far, byte for byte.
    std::string text() const
    {
        fflush(stdout);
        std::string out;
        char piece[4096];
        off_t at = 0;
        ssize_t n;
        while ((n = pread(fileno(file_), piece, sizeof(piece), at)) > 0) {
            out.append(piece, static_cast<size_t>(n));
            at += n;
        }
        return out;
    }

    // Gives standard output back; returns what was printed until then.
    std::string stop()
    {
        if (saved_ >= 0) {
            fflush(stdout);
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
            saved_ = -1;
        }
        return text();
    }

private:
    FILE *file_;
    int saved_;
};

#endif
