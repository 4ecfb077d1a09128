// Writing, scanning and talking with plain hiredis.
#include "raw.hpp"

#include <algorithm>
#include <stdexcept>

namespace bench
{

std::string key_of(int number) { return std::string(TABLE) + ":app:32:" + std::to_string(number); }

raw_connection::raw_connection(const std::string &socket, int database) : context_(redisConnectUnix(socket.c_str()))
{
    if (context_ == nullptr || context_->err != 0)
        throw std::runtime_error("the server cannot be reached");
    if (database != 0)
        ask({"SELECT", std::to_string(database)});
}

void raw_connection::append(std::initializer_list<std::string_view> words)
{
    append(std::vector<std::string_view>(words));
}

void raw_connection::append(const std::vector<std::string_view> &words)
{
    thread_local std::vector<const char *> texts;
    thread_local std::vector<size_t> sizes;
    texts.clear();
    sizes.clear();
    for (const auto word : words) {
        texts.push_back(word.data());
        sizes.push_back(word.size());
    }
    if (redisAppendCommandArgv(context_.get(), static_cast<int>(words.size()), texts.data(), sizes.data()) != REDIS_OK)
        throw std::runtime_error("a command cannot be sent");
}

void raw_connection::append_hset(const std::string &key)
{
    const auto &words = FIELD_WORDS;
    append({"HSET", key, words[0], words[1], words[2], words[3], words[4], words[5]});
}

void raw_connection::append_formatted_hset(const std::string &key)
{
    const auto &words = FIELD_WORDS;
    if (redisAppendCommand(context_.get(), "HSET %s 6 %b 7 %b 8 %b", key.c_str(), words[1].data(), words[1].size(),
                           words[3].data(), words[3].size(), words[5].data(), words[5].size()) != REDIS_OK)
        throw std::runtime_error("a command cannot be sent");
}

raw_reply raw_connection::read()
{
    void *reply = nullptr;
    if (redisGetReply(context_.get(), &reply) != REDIS_OK)
        throw std::runtime_error("no reply");
    raw_reply read(static_cast<redisReply *>(reply));
    if (read->type == REDIS_REPLY_ERROR)
        throw std::runtime_error(read->str);
    return read;
}

void raw_connection::drop(int count)
{
    for (int i = 0; i < count; ++i)
        read();
}

raw_reply raw_connection::ask(std::initializer_list<std::string_view> words)
{
    append(words);
    return read();
}

void raw_connection::take(const std::function<void(const redisReply &)> &each)
{
    if (redisBufferRead(context_.get()) != REDIS_OK)
        throw std::runtime_error("the server is gone");
    while (true) {
        void *reply = nullptr;
        if (redisGetReplyFromReader(context_.get(), &reply) != REDIS_OK)
            throw std::runtime_error("no reply");
        const raw_reply read(static_cast<redisReply *>(reply));
        if (read == nullptr)
            return;
        if (read->type == REDIS_REPLY_ERROR)
            throw std::runtime_error(read->str);
        each(*read);
    }
}

void raw_connection::flush()
{
    for (int done = 0; done == 0;) {
        if (redisBufferWrite(context_.get(), &done) != REDIS_OK)
            throw std::runtime_error("the server is gone");
    }
}

void write_groups(raw_connection &to, int count, const std::function<int(int first)> &group)
{
    std::vector<int> answers;
    size_t read = 0;
    for (int first = 0; first < count; first += GROUP) {
        answers.push_back(group(first));
        to.flush();
        if (answers.size() - read >= UNDER_WAY)
            to.drop(answers[read++]);
    }
    while (read < answers.size())
        to.drop(answers[read++]);
}

void write_raw(raw_connection &to, int count, int keys)
{
    write_groups(to, count, [&](int first) {
        const int size = std::min(GROUP, count - first);
        for (int i = first; i < first + size; ++i)
            to.append_hset(key_of(i % keys));
        return size;
    });
}

void write_formatted(raw_connection &to, int count)
{
    write_groups(to, count, [&](int first) {
        const int size = std::min(GROUP, count - first);
        for (int i = first; i < first + size; ++i)
            to.append_formatted_hset(key_of(i % KEYS));
        return size;
    });
}

int scan_raw(raw_connection &to)
{
    int found = 0;
    const std::string glob = std::string(TABLE) + ":*";
    for (std::string cursor = "0";;) {
        const raw_reply page = to.ask({"SCAN", cursor, "MATCH", glob, "COUNT", "1000"});
        const redisReply &keys = *page->element[1];
        for (size_t i = 0; i < keys.elements; ++i)
            to.append({"HGETALL", {keys.element[i]->str, keys.element[i]->len}});
        to.drop(static_cast<int>(keys.elements));
        found += static_cast<int>(keys.elements);
        cursor = page->element[0]->str;
        if (cursor == "0")
            return found;
    }
}

}  // namespace bench
