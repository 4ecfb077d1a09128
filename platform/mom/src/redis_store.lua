-- What the store client has the server do in one atomic step: records, marks, and the log of changes.
--
-- Keys of a database, beside the records themselves (a hash of field number to bytes for records written by field, a
-- string for records written whole):
--   mom:log        a stream; one entry holds the changes of one call, its id is POSITION-0
--   mom:position   the position of the newest entry
--   mom:epoch      drawn when the log begins; another one means that the data was lost
--   mom:marks      sorted set: key of a marked record, time at which its mark fires (microseconds)
--   mom:calls      hash: key of a marked record -> number of the expiry call that marked it
--   mom:lock:NAME  token of the holder of a lock; runs out when nobody renews it
--   mom:left       hash: number of an expiry call -> marks that are left of it
--   mom:done:ID    the last call that this client has had carried out; forgotten after ten minutes
--
-- A change in the log is a row of texts: command, key, names of the written fields, count, then `count` times field and
-- bytes ("" for a whole record). The end of an expiry call is the command "end", its key the call.
--
-- ARGV: what is to be done, the client, the number of the call (0: reads, that may be made again), and what follows.
-- Every answer begins with a position: once the log has been read up to there it is known what came before the answer.

local LOG_ENTRIES = 4096
local LOCK_MILLISECONDS = 1500
local RECORD_BATCH = 500 -- as many fit a call of unpack

local verb, client, number = ARGV[1], ARGV[2], ARGV[3]
local call = redis.call
local log = {}
local any_marks = call('EXISTS', 'mom:marks') == 1

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

local function marks_gone(id, count)
    if call('HINCRBY', 'mom:left', id, -count) <= 0 then
        call('HDEL', 'mom:left', id)
        tell('end', id, '', {})
    end
end

local function unmark(key)
    if any_marks and call('ZREM', 'mom:marks', key) == 1 then
        local id = call('HGET', 'mom:calls', key)
        call('HDEL', 'mom:calls', key)
        return id
    end
end

local function clear_mark(key)
    local id = unmark(key)
    if id then
        marks_gone(id, 1)
    end
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

-- The arguments of a write follow `at`; the result is a letter for the client, and where the next write begins.
local write = {}

local function lock_key(name) return 'mom:lock:' .. name end

-- A write may be fenced: "f", name of the lock, token that its holder has, then the write.
local function fence_holds(at) return call('GET', lock_key(ARGV[at])) == ARGV[at + 1] end

local words_of = {s = 3, d = 2, c = 2, l = 3}

-- Where the write after the one at `at` begins.
local function after(at) return at + (words_of[ARGV[at]] or 4 + 2 * tonumber(ARGV[at + 3])) end

local function write_fields(at, creates)
    local key, names, count = ARGV[at], ARGV[at + 1], tonumber(ARGV[at + 2])
    local first, last = at + 3, at + 2 + 2 * count
    if not creates and call('EXISTS', key) == 0 then
        return 'k', last + 1
    end
    local added = redis.pcall('HSET', key, unpack(ARGV, first, last))
    if type(added) == 'table' then
        return string.find(added.err, 'WRONGTYPE', 1, true) and 'f' or 'm', last + 1
    end
    local body
    if call('HLEN', key) == count then
        body = {unpack(ARGV, first, last)}
    else
        body = call('HGETALL', key)
    end
    tell(string.find(names, ',', 1, true) and '6' or '4', key, names, body)
    if creates then
        clear_mark(key)
    end
    return 'k', last + 1
end

function write.h(at) return write_fields(at, true) end

function write.u(at) return write_fields(at, false) end

function write.s(at)
    local key, bytes = ARGV[at], ARGV[at + 1]
    local kind = call('TYPE', key).ok
    if kind ~= 'string' and kind ~= 'none' then
        return 'f', at + 2
    end
    local done = redis.pcall('SET', key, bytes)
    if done.err then
        return 'm', at + 2
    end
    tell('1', key, '', {'', bytes})
    clear_mark(key)
    return 'k', at + 2
end

function write.d(at)
    remove('3', ARGV[at])
    return 'k', at + 1
end

function write.c(at)
    clear_mark(ARGV[at])
    return 'k', at + 1
end

-- Lets a lock go.
function write.l(at)
    if fence_holds(at) then
        call('DEL', lock_key(ARGV[at]))
    end
    return 'k', at + 2
end

-- ---- what the client can ask for -----------------------------------------------------------------------------------

local verbs = {}

function verbs.write()
    local letters = {}
    local at = 4
    while at <= #ARGV do
        local letter
        if ARGV[at] == 'f' and not fence_holds(at + 1) then
            letter, at = 'l', after(at + 3)
        else
            if ARGV[at] == 'f' then
                at = at + 3
            end
            letter, at = write[ARGV[at]](at + 1)
        end
        letters[#letters + 1] = letter
    end
    return table.concat(letters)
end

-- ARGV 4: glob of the keys that can match. 5: "1" when that is one key exactly. 6...: the key's pieces, "" for any.
local function matches(key)
    local at = 6
    local rest = string.find(key, ':', 1, true)
    for piece in string.gmatch(rest and string.sub(key, rest) or '', ':([^:]*)') do
        local wanted = ARGV[at]
        if not wanted or (wanted ~= '' and wanted ~= piece) then
            return false
        end
        at = at + 1
    end
    return at == #ARGV + 1
end

local function each_match(visit)
    if ARGV[5] == '1' then
        if call('EXISTS', ARGV[4]) == 1 then
            visit(ARGV[4])
        end
        return
    end
    local seen = {}
    local cursor = '0'
    repeat
        local page = call('SCAN', cursor, 'MATCH', ARGV[4], 'COUNT', 1000)
        cursor = page[1]
        for _, key in ipairs(page[2]) do
            if not seen[key] and matches(key) then
                seen[key] = true
                visit(key)
            end
        end
    until cursor == '0'
end

local function now()
    local time = call('TIME')
    return tonumber(time[1]) * 1000000 + tonumber(time[2])
end

local function fire()
    if not any_marks then
        return 0
    end
    local due = call('ZRANGEBYSCORE', 'mom:marks', '-inf', string.format('%.0f', now()), 'LIMIT', 0, RECORD_BATCH)
    for _, key in ipairs(due) do
        remove('27', key)
    end
    return #due
end

-- The last argument is the delay in microseconds.
function verbs.mark()
    local delay = tonumber(table.remove(ARGV))
    local id = client .. ':' .. number
    local deadline = string.format('%.0f', now() + delay)
    local count = 0
    local earlier = {}
    each_match(function(key)
        local other = unmark(key)
        if other then
            earlier[#earlier + 1] = other
        end
        call('ZADD', 'mom:marks', deadline, key)
        call('HSET', 'mom:calls', key, id)
        count = count + 1
    end)
    for _, other in ipairs(earlier) do
        marks_gone(other, 1)
    end
    if count == 0 then
        tell('end', id, '', {})
    else
        call('HSET', 'mom:left', id, count)
        any_marks = true
    end
    if delay == 0 then
        while fire() == RECORD_BATCH do
        end
    end
    return 'k'
end

function verbs.sweep()
    if any_marks then
        local marked = {}
        for _, key in ipairs(call('ZRANGE', 'mom:marks', 0, -1)) do
            if ARGV[5] == '1' and key == ARGV[4] or ARGV[5] ~= '1' and matches(key) and
                string.sub(key, 1, #ARGV[4] - 1) == string.sub(ARGV[4], 1, -2) then
                marked[#marked + 1] = key
            end
        end
        for _, key in ipairs(marked) do
            remove('3', key)
        end
    end
    return 'k'
end

-- "=": the client holds the lock, as its token says; "-": another one does; else its new token.
local function keep_lock(name, token)
    local key = lock_key(name)
    local holder = call('GET', key)
    if holder and holder ~= token then
        return '-'
    end
    local kept = holder or client .. ':' .. string.format('%.0f', now())
    call('SET', key, kept, 'PX', LOCK_MILLISECONDS)
    return holder and '=' or kept
end

-- ARGV 4...: locks that are wanted, each a name and the token that its holder has. Answers the epoch, so that who asks
-- now and then learns that the data was lost behind an open connection, and what became of each lock.
function verbs.fire()
    local answers = {call('GET', 'mom:epoch') or ''}
    for at = 4, #ARGV, 2 do
        answers[#answers + 1] = keep_lock(ARGV[at], ARGV[at + 1])
    end
    return fire() == RECORD_BATCH and 'more' or 'k', table.concat(answers, ' ')
end

-- ARGV 4: number of an expiry call.
function verbs.left() return call('HEXISTS', 'mom:left', ARGV[4]) == 1 and 'k' or 'gone' end

-- ARGV 4: cursor. 5: glob. Answers the next cursor and the records found: key, count, `count` times field and bytes.
function verbs.page()
    local page = call('SCAN', ARGV[4], 'MATCH', ARGV[5], 'COUNT', 1000)
    local rows = {}
    for _, key in ipairs(page[2]) do
        local body = redis.pcall('HGETALL', key)
        if body.err then
            body = body_of(key)
        end
        if body then
            local at = #rows
            rows[at + 1], rows[at + 2] = key, tostring(#body / 2)
            for i = 1, #body do
                rows[at + 2 + i] = body[i]
            end
        end
    end
    return page[1], cmsgpack.pack(rows)
end

-- Where the log begins and which one it is.
function verbs.hello()
    local epoch = call('GET', 'mom:epoch')
    if not epoch then
        epoch = client
        call('SET', 'mom:epoch', epoch)
    end
    local run = string.match(call('INFO', 'server'), 'run_id:(%w+)')
    return epoch .. ' ' .. run
end

-- ---- the call ------------------------------------------------------------------------------------------------------

local done_key = 'mom:done:' .. client
local answer, more = 'again', nil
if number == '0' then
    answer, more = verbs[verb]()
elseif tonumber(number) > tonumber(call('GET', done_key) or '0') then
    call('SET', done_key, number, 'PX', 600000)
    answer, more = verbs[verb]()
end
local position
if #log > 0 then
    position = call('INCR', 'mom:position')
    call('XADD', 'mom:log', 'MAXLEN', '~', LOG_ENTRIES, position .. '-0', 'c', cmsgpack.pack(log))
else
    position = call('GET', 'mom:position') or '0'
end
return {tostring(position), answer, more or ''}
