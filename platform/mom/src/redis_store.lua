#!lua name=@REDIS_FUNCTION@
-- What the store client has the server do in one atomic step: records, marks, and the log of changes.
--
-- Keys of a database, beside the records themselves (a hash of field number to bytes for records written by field, a
-- string for records written whole):
--   mom:log        a stream; one entry holds the changes of one call, its id is POSITION-0
--   mom:state      hash:
--                    position   of an entry of the log: what is said here is as it was then, or newer
--                    done:ID    of a client: see below
--                    cursor     of a walk over these fields, a step whenever a client comes, which forgets clients that
--                               have had no call for ten minutes
--   mom:epoch      drawn when the log begins; another one means that the data was lost
--   mom:lives      the last lives of the log, oldest first, each its name and the position at which it began: a life is the
--                  time for which one server gives the positions, under one name of its replication history
--   mom:marks      sorted set: key of a marked record, time at which its mark fires (microseconds)
--   mom:calls      hash: key of a marked record -> number of the expiry call that marked it
--   mom:lock:NAME  token of the holder of a lock; runs out when nobody renews it
--   mom:left       hash: number of an expiry call -> marks that are left of it; while they are still being set, many more
--
-- Each entry of the log is also pushed to the channel mom:log:DATABASE: its position, the first letter of its field, and
-- the texts.
--
-- An entry of the log has one field: a letter that says what the texts are, the clock (seconds), and unless these are all
-- empty, what the call that made the entry and the three before it were answered, newest first, a '|' before each. The
-- texts are packed one after the other. Before them stand the database, the client, the number of the call and that of the
-- oldest one that the client had under way; 0 for a call that has no number. Number, clock and answers are what mom:state
-- holds for the client.
-- "r": rows of texts, a change each: command, key, numbers of the written fields as they were sent, count,
-- then `count` times field and bytes ("" for a whole record); the end of an expiry call is the command "end", its key the
-- call. Of a write by field these are the fields that were written, and with "w" behind the command all that the record
-- holds then; else all that it held.
-- "s": what a client sent with its writes, as it came, which says the same where every write was done and took off no last
-- mark. That is nearly always so, and packing rows costs more than writing the records. What else a record holds
-- is known to who follows its table. Who only begins to follow does not know it yet: while anybody reads a table for that,
-- page by page, writes by field are told whole.
--
-- This is a library of one function, so that none of it is made anew at a call. Its arguments: what is to be done, the
-- database, the client, the number of the call (0: reads, that may be made again), that of the oldest one that the client
-- has under way, and what follows. A call with writes is one argument, as an entry of the log has it: database, client,
-- number, oldest, and the writes; an argument costs the server more than a packed text. An answer is one text, for a table
-- of several costs nearly as much as a record: a position, a space and the answer, a new line and more; nothing stands
-- behind what is empty. Once the log has been read up to that position it is known what came before the answer.
--
-- Of what is done for each write, or each call, three things cost more than they seem to: a step of Lua is some 45
-- instructions of the processor and a call of a function some 300, text from number or back 1,500 to 3,000, and a table
-- that grows is made anew again and again.
--
-- What is needed at every call is kept in Lua, too. The server forgets it when it ends; it is read again then, from
-- mom:state and from the entries of the log since. All calls but writes look whether it still is what the log ends with:
-- a server that was another one's replica meanwhile, or that was emptied, has another log.

local LOG_ENTRIES = 4096
local TRIM_INTERVAL = 64 -- entries
local NOTE_INTERVAL = 256 -- entries; so many at most are read when this has been forgotten
local LIVES = 64
local LOCK_MILLISECONDS = 1500
local RECORD_BATCH = 500 -- as many fit a call of unpack
local FIELDS_WRITTEN_OUT = 100
local CLIENT_SECONDS = 600
local CLIENTS_A_STEP = 200
local LOADER_SECONDS = 30
local SCAN_PAGE = 1000
local PIECE_PAGES, PIECE_RECORDS = 10, 2000 -- at most, of what is walked over and of what is found; some ms
local LAST_POSITION = 2 ^ 52 -- this language counts no further than twice of it
local UNFINISHED = 2 ^ 40 -- marks that an expiry call seems to have beside its own until all of them are set

local call, pcall, unpack, tonumber -- as elsewhere; they are not there yet while this is loaded

local endings = {} -- of numbers, two digits as text

local known = {} -- by database, of what is there:
--   position   of the newest entry, as a number and, in `at`, as text; `hundreds`: all but two digits of that
--   field      the newest entry's, and its texts
--   marks      there may be marks
--   clock      seconds; the time is told by whoever fires marks
--   is_new     there has never been an entry
--   channel    where entries are pushed to
--   loaders    who is reading a table, and which, until when he has to be heard of (clock); `is_read`: anybody does
--   clients    number and answers of the last call of each, the clock at that time, and whether mom:state
--              lacks it

-- Of the call that is being carried out:
local ARGV -- its arguments
local client, number, oldest, database
local state -- what is known of the database
local mine -- what is known of the client
local log = {} -- rows that its entry of the log is to have
local sent -- a call with writes: the texts that the client sent
local as_sent -- the log can tell of it by what was sent
local changed
local clearing = {} -- records whose marks are to be taken off: a list, and the same as a set
local broken_off -- an error has ended an earlier call

-- Of a key of our own: what somebody else has written there goes.
local function call_own(command, key, ...)
    local done = pcall(command, key, ...)
    if type(done) ~= 'table' or not done.err then
        return done
    end
    if string.find(done.err, 'WRONGTYPE', 1, true) then
        call('DEL', key)
    end
    return call(command, key, ...)
end

local function tell(command, key, names, body)
    local at = #log
    log[at + 1], log[at + 2], log[at + 3], log[at + 4] = command, key, names, tostring(#body / 2)
    for i = 1, #body do
        log[at + 4 + i] = body[i]
    end
end

-- What a record holds: field and bytes in turns; nil when there is no record.
local function body_of(key)
    local kind = call('TYPE', key).ok
    if kind == 'hash' then
        return call('HGETALL', key)
    end
    return kind == 'string' and {'', call('GET', key)} or nil
end

-- The writes that the client sent, as texts: "h" or "u", key, numbers of the named fields, and the bytes of each field; the
-- numbers are followed by those of all fields, behind a '|', where there are more than were named. "s", key, bytes; "d"
-- or "c", key; "l" or "f", name of a lock, token. "H" is "c" and "h" of the same record. "f" is a fence: what stands behind
-- it is to be done only by the holder of that lock, until there is another one; "" for a name: by anybody.
local FIRST_WRITE = 5 -- of the texts
local words_of = {s = 3, d = 2, c = 2, l = 3, f = 3}
local fields_in = {} -- by their numbers as one text: the number of each, as text
local field_texts = 0

local function fields_of(numbers)
    local fields = fields_in[numbers]
    if not fields then
        if field_texts == 1000 then
            fields_in, field_texts = {}, 0
        end
        fields = {}
        for each in string.gmatch(string.match(numbers, '[^|]*$'), '[^,]+') do
            fields[#fields + 1] = each
        end
        fields_in[numbers], field_texts = fields, field_texts + 1
    end
    return fields
end

local function next_after(at) return at + (words_of[sent[at]] or 3 + #fields_of(sent[at + 2])) end

-- Field and bytes in turns.
local function body_sent(at)
    local body = {}
    for i, field in ipairs(fields_of(sent[at + 2])) do
        body[2 * i - 1], body[2 * i] = field, sent[at + 2 + i]
    end
    return body
end

-- One field was named, or several.
local function command_of(numbers) return string.find(numbers, '^%d+,') and '6' or '4' end

local function tell_sent(at)
    local kind, key = sent[at], sent[at + 1]
    if kind == 's' then
        tell('1', key, '', {'', sent[at + 2]})
    elseif kind == 'h' or kind == 'H' or kind == 'u' then
        tell(command_of(sent[at + 2]), key, sent[at + 2], body_sent(at))
    end
end

-- The log has to tell of the write at `at` in other words than it was sent; so it does of those before it.
local function tell_otherwise(at)
    if not as_sent then
        return
    end
    as_sent = false
    local each = FIRST_WRITE
    while each < at do
        tell_sent(each)
        each = next_after(each)
    end
end

local function marks_gone(id, count)
    if call_own('HINCRBY', 'mom:left', id, -count) <= 0 then
        call('HDEL', 'mom:left', id)
        if sent then
            tell_otherwise(#sent + 1)
        end
        tell('end', id, '', {})
    end
end

-- Visits the keys in batches that fit a call of unpack.
local function each_batch(keys, visit)
    for first = 1, #keys, RECORD_BATCH do
        visit({unpack(keys, first, math.min(first + RECORD_BATCH - 1, #keys))})
    end
end

-- Counts the marks of these records, by the expiry call that set them.
local function count_marks(keys, counts)
    for _, id in ipairs(call_own('HMGET', 'mom:calls', unpack(keys))) do
        if id then
            counts[id] = (counts[id] or 0) + 1
        end
    end
end

local function tell_counts(counts)
    for id, count in pairs(counts) do
        marks_gone(id, count)
    end
end

-- Whether the record has a mark is looked at by clear_marks(), for all of them together: commands for each would cost
-- more than its write.
local function clear_mark(key)
    if state.marks and not clearing[key] then
        clearing[key] = true
        clearing[#clearing + 1] = key
    end
end

-- Takes off the marks that clear_mark() was told of.
local function clear_marks()
    if #clearing == 0 then
        return
    end
    local counts = {}
    each_batch(clearing, function(keys)
        local cleared = pcall('ZREM', 'mom:marks', unpack(keys))
        if type(cleared) == 'number' and cleared > 0 then
            count_marks(keys, counts)
            call('HDEL', 'mom:calls', unpack(keys))
        end
    end)
    clearing = {}
    tell_counts(counts)
end

local function remove(command, key)
    local body = body_of(key)
    if body then
        call('DEL', key)
        tell(command, key, '', body)
    end
    clear_mark(key)
end

-- ---- writes --------------------------------------------------------------------------------------------------------

-- Each write gets where it begins and returns where the next one does, and a letter for the client when it was not done.
local write = {}

local function refusal(at, fault)
    tell_otherwise(at)
    return string.find(fault, 'WRONGTYPE', 1, true) and 'f' or 'm'
end

-- By how many fields a write has: what sets them. Each is written out, so that no table has to be made for them, as long
-- as a function can hold them.
local setters = {}

local function setter_of(count)
    local texts = {}
    for i = 1, count do
        texts[i] = string.format(', fields[%d], sent[at + %d]', i, i + 2)
    end
    local head = 'local pcall = ... return function(key, fields, sent, at) return pcall("HSET", key'
    setters[count] = count <= FIELDS_WRITTEN_OUT and loadstring(head .. table.concat(texts) .. ') end')(pcall) or
        function(key, _, _, at) return pcall('HSET', key, unpack(body_sent(at))) end
    return setters[count]
end

local function tell_fields(at)
    local key, numbers = sent[at + 1], sent[at + 2]
    if state.is_read then
        tell_otherwise(at)
        tell(command_of(numbers) .. 'w', key, numbers, call('HGETALL', key))
    else
        tell_sent(at)
    end
end

function write.h(at, leaves_mark)
    local key, numbers = sent[at + 1], sent[at + 2]
    local fields = fields_in[numbers] or fields_of(numbers)
    local count = #fields
    local done = (setters[count] or setter_of(count))(key, fields, sent, at)
    if done ~= 0 and type(done) == 'table' then
        return at + 3 + count, refusal(at, done.err)
    end
    changed = true
    if state.is_read or not as_sent then
        tell_fields(at)
    end
    if state.marks and not leaves_mark then
        clear_mark(key)
    end
    return at + 3 + count
end

-- The mark goes also when the write cannot be done.
function write.H(at)
    clear_mark(sent[at + 1])
    return write.h(at)
end

function write.u(at)
    local fields = pcall('HLEN', sent[at + 1])
    if fields == 0 then
        tell_otherwise(at)
        return next_after(at)
    elseif type(fields) == 'table' then
        return next_after(at), refusal(at, fields.err)
    end
    return write.h(at, true)
end

function write.s(at)
    local key = sent[at + 1]
    local before = pcall('SET', key, sent[at + 2], 'GET') -- refuses what is no string
    if type(before) == 'table' then
        return at + 3, refusal(at, before.err)
    end
    changed = true
    if not as_sent then
        tell_sent(at)
    end
    clear_mark(key)
    return at + 3
end

function write.d(at)
    tell_otherwise(at)
    remove('3', sent[at + 1])
    return at + 2
end

function write.c(at)
    clear_mark(sent[at + 1])
    return at + 2
end

local function lock_key(name) return 'mom:lock:' .. name end

local function holds_lock(at)
    local name = sent[at + 1]
    return name == '' or call_own('GET', lock_key(name)) == sent[at + 2]
end

-- Lets a lock go.
function write.l(at)
    if holds_lock(at) then
        call('DEL', lock_key(sent[at + 1]))
    end
    return at + 3
end

local function write_fenced_off(at)
    tell_otherwise(at)
    return next_after(at), 'l'
end

-- ---- what the client can ask for -----------------------------------------------------------------------------------

local verbs = {}

-- Answers a letter for each write, or nothing at all when all were done.
function verbs.write()
    local letters
    local at, count, size, may_write = FIRST_WRITE, 0, #sent, true
    while at <= size do
        local kind = sent[at]
        if kind == 'f' then
            may_write = holds_lock(at)
            at = at + 3
        else
            local behind, letter = (may_write and write[kind] or write_fenced_off)(at)
            if letter then
                letters = (letters or '') .. string.rep('k', count) .. letter
                count = -1
            end
            at, count = behind, count + 1
        end
    end
    clear_marks()
    return letters and letters .. string.rep('k', count) or ''
end

-- ARGV 6: glob of the keys that can match. 7: "1" when that is one key exactly. 8...: the key's pieces, "#" for any number,
-- "*" for any text, "" for anything. So most keys that somebody else has put beside ours are left alone. As a Lua pattern
-- of the whole key:
local any_piece = {['#'] = '%-?%d+', ['*'] = '[%w._%%-]*', [''] = '[^:]*'}

local function pattern_of_pieces()
    local pattern = '^[^:]*'
    for at = 8, #ARGV do
        pattern = pattern .. ':' .. (any_piece[ARGV[at]] or string.gsub(ARGV[at], '%W', '%%%0'))
    end
    return pattern .. '$'
end

-- The matching keys of a piece of the database, from a cursor on, each once, and the cursor of the next piece. None takes
-- so long that others have to wait for it.
local function matches_from(cursor)
    local found, seen = {}, {}
    if ARGV[7] == '1' then
        return call('EXISTS', ARGV[6]) == 1 and {ARGV[6]} or found, '0'
    end
    local pattern = pattern_of_pieces()
    local pages = 0
    repeat
        local page = call('SCAN', cursor, 'MATCH', ARGV[6], 'COUNT', SCAN_PAGE)
        cursor, pages = page[1], pages + 1
        for _, key in ipairs(page[2]) do
            if not seen[key] and string.find(key, pattern) then
                seen[key] = true
                found[#found + 1] = key
            end
        end
    until cursor == '0' or #found >= PIECE_RECORDS or pages == PIECE_PAGES
    return found, cursor
end

local function now()
    local time = call('TIME')
    return tonumber(time[1]) * 1000000 + tonumber(time[2])
end

-- Another log begins: whoever followed the old one compares anew. The data may have been lost, and the place to which
-- somebody has read a table means nothing then: who goes on from there lapses.
local function new_epoch()
    local epoch = client .. '-' .. string.format('%.0f', now())
    call('SET', 'mom:epoch', epoch)
    call('DEL', 'mom:lives')
    if state then
        state.loaders, state.is_read = {}, false
    end
    return epoch
end

local function set_clock()
    state.clock = call('TIME')[1]
end

local function fire()
    if not state.marks then
        return 0
    end
    local due = call('ZRANGEBYSCORE', 'mom:marks', '-inf', string.format('%.0f', now()), 'LIMIT', 0, RECORD_BATCH)
    for _, key in ipairs(due) do
        remove('27', key)
    end
    clear_marks()
    return #due
end

local function set_marks(keys, id, deadline)
    local earlier = {}
    each_batch(keys, function(batch)
        if state.marks then
            count_marks(batch, earlier)
        end
        local marks, calls = {}, {}
        for i, key in ipairs(batch) do
            marks[2 * i - 1], marks[2 * i] = deadline, key
            calls[2 * i - 1], calls[2 * i] = key, id
        end
        call_own('ZADD', 'mom:marks', unpack(marks))
        call_own('HSET', 'mom:calls', unpack(calls))
    end)
    tell_counts(earlier)
end

-- Marks a piece of the database. The last arguments are the delay in microseconds, the number of the expiry call, the
-- cursor where the piece begins, and the deadline, "" for the first one to make it. Answers "k" when that was the last
-- piece, else "m", the next cursor and the deadline. Until the last one the call is counted as if it had many marks more:
-- it must not end before. Who begins anew, because a cursor means nothing to another server, marks what is marked again.
function verbs.mark()
    local deadline = table.remove(ARGV)
    local cursor = table.remove(ARGV)
    local id = table.remove(ARGV)
    local delay = tonumber(table.remove(ARGV))
    if deadline == '' then
        deadline = string.format('%.0f', now() + delay)
    end
    call_own('HSETNX', 'mom:left', id, UNFINISHED)
    local found, next_cursor = matches_from(cursor)
    if #found > 0 then
        set_marks(found, id, deadline)
        call('HINCRBY', 'mom:left', id, #found)
        state.marks = true
    end
    if next_cursor ~= '0' then
        return 'm' .. next_cursor .. ' ' .. deadline
    end
    marks_gone(id, UNFINISHED)
    if delay == 0 then
        while fire() == RECORD_BATCH do
        end
    end
    return 'k'
end

function verbs.sweep()
    if state.marks then
        local marked = {}
        local pattern = pattern_of_pieces()
        for _, key in ipairs(call('ZRANGE', 'mom:marks', 0, -1)) do
            if ARGV[7] == '1' and key == ARGV[6] or ARGV[7] ~= '1' and string.find(key, pattern) and
                string.sub(key, 1, #ARGV[6] - 1) == string.sub(ARGV[6], 1, -2) then
                marked[#marked + 1] = key
            end
        end
        for _, key in ipairs(marked) do
            remove('3', key)
        end
        clear_marks()
    end
    return 'k'
end

-- "=": the client holds the lock, as its token says; "-": another one does; else its new token.
local function keep_lock(name, token)
    local key = lock_key(name)
    local holder = call_own('GET', key)
    if holder and holder ~= token then
        return '-'
    end
    local kept = holder or client .. ':' .. name .. ':' .. string.format('%.0f', now())
    call('SET', key, kept, 'PX', LOCK_MILLISECONDS)
    return holder and '=' or kept
end

local function set_loader(loader, patience)
    state.loaders[loader] = patience
    state.is_read = next(state.loaders) ~= nil -- looked at with each write
end

-- Who fires marks lives, and goes on reading.
local function look_at_loaders()
    local seconds = tonumber(state.clock)
    for loader, patience in pairs(state.loaders) do
        if string.sub(loader, 1, #client + 1) == client .. ' ' then
            set_loader(loader, seconds + LOADER_SECONDS)
        elseif patience < seconds then
            set_loader(loader, nil)
        end
    end
end

-- ARGV 6...: locks that are wanted, each a name and the token that its holder has. Answers the epoch, so that who asks
-- now and then learns that the data was lost behind an open connection, and what became of each lock.
function verbs.fire()
    state.marks = call_own('ZCARD', 'mom:marks') > 0
    set_clock()
    look_at_loaders()
    local fired = fire()
    local answers = {call_own('GET', 'mom:epoch') or ''}
    for at = 6, #ARGV, 2 do
        answers[#answers + 1] = keep_lock(ARGV[at], ARGV[at + 1])
    end
    return fired == RECORD_BATCH and 'more' or 'k', table.concat(answers, ' ')
end

-- ARGV 6: number of an expiry call. 7: "set": all its marks were, as the client knows. A server that has lost data may be back
-- in the midst of setting them.
function verbs.left()
    local id = ARGV[6]
    local left = tonumber(call_own('HGET', 'mom:left', id))
    if left and left > UNFINISHED / 2 and ARGV[7] == 'set' then
        marks_gone(id, UNFINISHED)
    end
    return call_own('HEXISTS', 'mom:left', id) == 1 and 'k' or 'gone'
end

-- ARGV 6: "begin", "go on" or "end". 7: the name of a table. Its records are read by commands that follow this one. From
-- the beginning to the end writes are told whole. "lapsed": that has taken too long, and is to begin anew.
function verbs.read()
    local step, loader = ARGV[6], client .. ' ' .. ARGV[7]
    if step == 'go on' and not state.loaders[loader] then
        return 'lapsed'
    end
    set_loader(loader, step ~= 'end' and tonumber(state.clock) + LOADER_SECONDS or nil)
    return ''
end

local function is_long_ago(clock) return tonumber(clock) + CLIENT_SECONDS < tonumber(state.clock) end

-- Not the one that comes: it is to hear which call of it is known.
local function forget_clients()
    set_clock()
    local own = 'done:' .. client
    local step = call('HSCAN', 'mom:state', call('HGET', 'mom:state', 'cursor') or '0', 'COUNT', CLIENTS_A_STEP)
    call('HSET', 'mom:state', 'cursor', step[1])
    local fields = step[2]
    for i = 1, #fields, 2 do
        local clock = fields[i] ~= own and string.match(fields[i], '^done:') and
            string.match(fields[i + 1], '^%d+ (%d+)')
        if clock and is_long_ago(clock) then
            call('HDEL', 'mom:state', fields[i])
        end
    end
    for id, each in pairs(state.clients) do
        if id ~= client and is_long_ago(each.clock) then
            state.clients[id] = nil
        end
    end
end

-- A server that was restarted may have come back without the end of its data, and one that has become a master may never
-- have had it: what was lost is not known, but what it has is where the lives before it ended. A server that is a master
-- once more has a new replication history.
local function life_of_this_server(epoch)
    local run = string.match(call('INFO', 'server'), 'run_id:(%w+)')
    local history = string.match(call('INFO', 'replication'), 'master_replid:(%w+)')
    return redis.sha1hex(epoch .. run .. history)
end

-- ---- what is known ---------------------------------------------------------------------------------------------------

-- Number, clock and answers of a client, as text and from it.
local function text_of(each) return string.format('%.0f', each.number) .. ' ' .. each.clock .. each.answers end

local function client_of(text)
    local last, clock, answers = string.match(text, '^(%d+) (%d+)(.*)')
    return {number = tonumber(last or 0), clock = clock or '0', answers = answers or ''}
end

-- Of a client that has not been heard of since this is kept here.
local function known_client(id)
    local noted = pcall('HGET', 'mom:state', 'done:' .. id)
    local each = client_of(type(noted) == 'string' and noted or '')
    state.clients[id] = each
    return each
end

-- Calls since mom:state was written are told by the log.
local function read_calls_since(position)
    for _, entry in ipairs(call('XRANGE', 'mom:log', '(' .. position .. '-0', '+')) do
        local field, texts = entry[2][1], entry[2][2]
        local is_packed, _, _, id, last = _G.pcall(cmsgpack.unpack_limit, texts, 3, 0)
        local clock, answers = string.match(field, '^[rs](%d+)(.*)')
        if is_packed and clock and type(last) == 'number' and last > 0 then
            local before = state.clients[id] or known_client(id)
            if last > before.number then
                state.clients[id] = {number = last, clock = clock, answers = answers, is_unnoted = true}
            end
        end
    end
end

-- Position, field and texts of the newest entry; of a log that somebody has cut short the position alone; of none nothing.
local function end_of_log()
    local newest = pcall('XREVRANGE', 'mom:log', '+', '-', 'COUNT', 1)
    if newest.err or not newest[1] then
        local about = pcall('XINFO', 'STREAM', 'mom:log')
        for i = 1, about.err and 0 or #about, 2 do
            if about[i] == 'last-generated-id' then
                return tonumber(string.match(about[i + 1], '^%d+'))
            end
        end
        return nil
    end
    local entry = newest[1]
    return tonumber(string.match(entry[1], '^%d+')), entry[2][1], entry[2][2]
end

local function go_to(position)
    state.position = position
    state.at = string.format('%.0f', position)
    state.hundreds = string.sub(state.at, 1, -3)
end

local function go_on()
    local position = state.position + 1
    local ending = position % 100
    if ending == 0 or position < 100 then
        return go_to(position)
    end
    state.position, state.at = position, state.hundreds .. endings[ending]
end

-- Every so many entries mom:state is brought up to date.
local function note_state()
    local fields = {'position', state.at}
    for id, each in pairs(state.clients) do
        if each.is_unnoted then
            each.is_unnoted = nil
            fields[#fields + 1], fields[#fields + 2] = 'done:' .. id, text_of(each)
        end
    end
    each_batch(fields, function(batch) pcall('HSET', 'mom:state', unpack(batch)) end)
end

-- Where somebody has broken the log a new one is begun, behind a gap, so that all are heard of. One that was led to where
-- numbers have no successor begins at 1.
local function begin_log_anew()
    call('DEL', 'mom:log')
    new_epoch()
    go_to(state.position < LAST_POSITION and state.position + 1 or 1)
    state.is_new = true
    note_state() -- what the entries said is gone
end

local function read_state(position, field, texts)
    local noted = pcall('HGET', 'mom:state', 'position')
    if type(noted) == 'table' then -- somebody has written something else there
        call('DEL', 'mom:state')
        new_epoch()
        noted = nil
    end
    noted = tonumber(noted or 0) or 0
    state = {
        field = field,
        texts = texts,
        marks = call('EXISTS', 'mom:marks') == 1,
        is_new = false,
        loaders = {},
        is_read = false,
        clients = {},
        channel = 'mom:log:' .. database,
    }
    known[database] = state
    go_to(math.max(position or 0, noted))
    set_clock()
    if position then
        read_calls_since(string.format('%.0f', noted))
    elseif noted > 0 then
        begin_log_anew()
    else
        state.is_new = true
    end
end

local function look_at_state()
    local position, field, texts = end_of_log()
    local kind = call('TYPE', 'mom:state').ok
    if not state or kind ~= 'hash' and kind ~= 'none' then
        read_state(position, field, texts)
    elseif position then
        if position ~= state.position or field and (field ~= state.field or texts ~= state.texts) then
            read_state(position, field, texts)
        end
    elseif not state.is_new then
        begin_log_anew()
    end
end

-- ---- who comes -----------------------------------------------------------------------------------------------------

local function lives_until(newest)
    local kept = pcall('GET', 'mom:lives')
    local lives = {}
    for name, start in string.gmatch(type(kept) == 'string' and kept or '', '(%S+) (%d+)') do
        lives[#lives + 1] = {name = name, start = tonumber(start)}
    end
    if #lives == 0 or lives[#lives].name ~= newest then
        if #lives > 0 then -- what is known may be of a time before this server was another one's replica
            read_state(end_of_log())
        end
        lives[#lives + 1] = {name = newest, start = state.position}
        local texts = {}
        for i = math.max(1, #lives - LIVES + 1), #lives do
            texts[#texts + 1] = lives[i].name .. ' ' .. string.format('%.0f', lives[i].start)
        end
        call('SET', 'mom:lives', table.concat(texts, ' '))
    end
    return lives
end

-- Whether the log still has all that was heard of it, up to `at`, in that life.
local function leads_on(lives, life, at)
    local last = state.position
    for i = #lives, 1, -1 do
        if lives[i].name == life then
            return at <= last
        end
        last = lives[i].start
    end
    return false
end

-- ARGV 6: the life in which the client heard the log last. 7: up to where. Answers whether the log leads on from there,
-- the epoch, the life that it is in now, and the number of the client's last call that is known.
function verbs.hello()
    call('PUBLISH', state.channel, '0') -- says nothing; a user who may not do so is refused here, and not after a write
    forget_clients()
    local epoch = call_own('GET', 'mom:epoch') or new_epoch()
    local life = life_of_this_server(epoch)
    local lives = lives_until(life)
    local last = (state.clients[client] or known_client(client)).number
    return leads_on(lives, ARGV[6], tonumber(ARGV[7])) and 'on' or 'anew',
        table.concat({epoch, life, string.format('%.0f', last)}, ' ')
end

-- ---- the call ------------------------------------------------------------------------------------------------------

local function add_entry(field, texts)
    if state.is_new then
        state.is_new = false
        return pcall('XADD', 'mom:log', state.at, field, texts)
    elseif state.position % TRIM_INTERVAL == 0 then
        return pcall('XADD', 'mom:log', 'NOMKSTREAM', 'MAXLEN', '~', LOG_ENTRIES, state.at, field, texts)
    end
    return pcall('XADD', 'mom:log', 'NOMKSTREAM', state.at, field, texts)
end

-- In pieces that fit a call of unpack.
local function packed_log()
    local pieces = {cmsgpack.pack(database, client, number, oldest)}
    each_batch(log, function(texts) pieces[#pieces + 1] = cmsgpack.pack(unpack(texts)) end)
    return table.concat(pieces)
end

-- The records are written by now. Returns what is pushed.
local function add_to_log()
    go_on()
    local kind, texts = 's', ARGV[1]
    if #log > 0 then
        kind, texts = 'r', packed_log()
        log = {}
    end
    local field = kind .. state.clock
    if number ~= 0 and mine.answers ~= '' then
        field = field .. mine.answers
    end
    state.field, state.texts = field, texts
    if type(add_entry(field, texts)) ~= 'string' then
        begin_log_anew()
        add_entry(field, texts)
    end
    return state.at .. kind .. texts
end

-- The answers of the last four calls, unless all are empty.
local function kept_answers(answer)
    local given_up = string.rep('|', math.min(number - mine.number - 1, 3))
    local earlier = mine.answers ~= '' and mine.answers or '||||'
    local kept = '|' .. answer .. string.match(given_up .. earlier, '|[^|]*|[^|]*|[^|]*')
    return kept == '||||' and '' or kept
end

-- Numbered calls are carried out once, and in their order. One whose predecessor was refused is refused, too, until the
-- client has made that again: nothing is returned.
local function once(act)
    mine = state.clients[client] or known_client(client)
    local last = mine.number
    if number <= last then
        return 'again', number + 3 >= last and
            string.match(mine.answers, '^' .. string.rep('|[^|]*', last - number) .. '|([^|]*)') or ''
    end
    if number > oldest and number > last + 1 then
        return nil
    end
    local answer, more = act()
    if answer ~= '' or mine.answers ~= '' then
        mine.answers = kept_answers(answer)
    end
    mine.number, mine.clock, mine.is_unnoted = number, state.clock, true
    return answer, more
end

redis.register_function('@REDIS_FUNCTION@', function(_, arguments)
    if not call then
        call, pcall, unpack, tonumber = redis.call, redis.pcall, _G.unpack, _G.tonumber
        for ending = 0, 99 do
            endings[ending] = string.format('%02d', ending)
        end
    end
    ARGV, sent = arguments, nil
    local verb = 'write'
    if arguments[2] then
        verb, database, client, number, oldest = unpack(arguments, 1, 5)
        number, oldest = tonumber(number), tonumber(oldest)
    else
        local texts = {cmsgpack.unpack(arguments[1])}
        sent, database, client, number, oldest = texts, texts[1], texts[2], texts[3], texts[4]
    end
    state = known[database]
    if not state or verb ~= 'write' then
        look_at_state()
    end
    if broken_off then
        log, clearing = {}, {}
    end
    broken_off, changed, as_sent = true, false, true
    local answer, more
    if number ~= 0 then
        answer, more = once(verbs[verb])
    else
        answer, more = verbs[verb]()
    end
    if not answer then
        return redis.error_reply('BUSY an earlier call is still to be made')
    end
    if #log > 0 or as_sent and changed then
        local entry = add_to_log()
        if state.position % NOTE_INTERVAL == 0 or state.position == 1 then -- the first, so that its loss shows
            note_state()
        end
        pcall('PUBLISH', state.channel, entry) -- all is done by now: who does not hear of it fetches it
    elseif number ~= 0 and answer ~= 'again' then
        pcall('HSET', 'mom:state', 'done:' .. client, text_of(mine)) -- no entry says it
    end
    broken_off = false
    if answer == '' then
        return state.at
    end
    return state.at .. ' ' .. answer .. (more and more ~= '' and '\n' .. more or '')
end)
