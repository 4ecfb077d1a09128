// The line editor behind line_reader.hpp: libedit.
#include <histedit.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "line_reader.hpp"

namespace ebridge_tool
{

namespace
{

constexpr int KEPT_LINES = 500;

class editor : public line_reader
{
  public:
    editor(std::string prompt, std::string history_file, completion complete)
        : prompt_(std::move(prompt)), file_(std::move(history_file)), complete_(std::move(complete))
    {
    }
    ~editor() override
    {
        if (editor_ != nullptr)
            el_end(editor_);
        if (history_ != nullptr)
            history_end(history_);
    }
    editor(const editor &) = delete;
    editor &operator=(const editor &) = delete;

    bool open()
    {
        history_ = history_init();
        editor_ = el_init("ebridge", stdin, stdout, stderr);
        if (history_ == nullptr || editor_ == nullptr)
            return false;
        history(history_, &event_, H_SETSIZE, KEPT_LINES);
        history(history_, &event_, H_SETUNIQUE, 1);
        if (!file_.empty())
            history(history_, &event_, H_LOAD, file_.c_str());
        el_set(editor_, EL_CLIENTDATA, this);
        el_set(editor_, EL_PROMPT, show_prompt);
        el_set(editor_, EL_EDITOR, "emacs");
        el_set(editor_, EL_SIGNAL, 1);
        el_set(editor_, EL_HIST, history, history_);
        el_set(editor_, EL_ADDFN, "complete", "completes a word", complete_word);
        el_set(editor_, EL_BIND, "^I", "complete", nullptr);
        el_set(editor_, EL_BIND, "^R", "em-inc-search-prev", nullptr);
        return true;
    }

    std::optional<std::string> next() override
    {
        int size = 0;
        const char *const text = el_gets(editor_, &size);
        if (text == nullptr || size <= 0) {
            std::fputc('\n', stdout);
            return std::nullopt;
        }
        std::string line(text, static_cast<size_t>(size));
        if (line.find_first_not_of(" \t\n") != std::string::npos)
            keep(text);
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
            line.pop_back();
        return line;
    }

  private:
    // In the file at once: a signal may end the program.
    void keep(const char *line)
    {
        history(history_, &event_, H_ENTER, line);
        if (!file_.empty())
            history(history_, &event_, H_SAVE, file_.c_str());
    }
    static editor *of(EditLine *line)
    {
        void *self = nullptr;
        el_get(line, EL_CLIENTDATA, &self);
        return static_cast<editor *>(self);
    }
    static char *show_prompt(EditLine *line) { return of(line)->prompt_.data(); }
    static unsigned char complete_word(EditLine *line, int)
    {
        const LineInfo *const shown = el_line(line);
        const std::string typed(shown->buffer, shown->cursor);
        const continuations found = continue_line(typed, of(line)->complete_);
        if (!found.common.empty())
            return el_insertstr(line, found.common.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
        if (found.all.empty())
            return CC_REFRESH_BEEP;
        std::fputc('\n', stdout);
        for (const std::string &word : found.all)
            std::fprintf(stdout, "%s  ", word.c_str());
        std::fputc('\n', stdout);
        return CC_REDISPLAY;
    }

    std::string prompt_;
    std::string file_;
    completion complete_;
    History *history_ = nullptr;
    EditLine *editor_ = nullptr;
    HistEvent event_{};
};

}  // namespace

std::unique_ptr<line_reader> make_line_editor(const std::string &prompt, const std::string &history_file,
                                              line_reader::completion complete)
{
    auto made = std::make_unique<editor>(prompt, history_file, std::move(complete));
    return made->open() ? std::move(made) : nullptr;
}

}  // namespace ebridge_tool
