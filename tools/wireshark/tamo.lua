-- A dissector for captures of `tamoctl capture`: the messages of a device root.
--
--   wireshark -X lua_script:tamo.lua FILE.pcapng
--   tshark -2 -X lua_script:tamo.lua -r FILE.pcapng -T fields -e tamo.event -e tamo.queue
--
-- It knows packets of the link type USER0 that begin with version 1. docs/captures.md has their layout.

local tamo = Proto("tamo", "Message between processes")

local kinds = {
    [1] = "sent", [2] = "received", [3] = "refused", [4] = "responded", [5] = "answered", [6] = "failed"
}
local SENT, REFUSED, RESPONDED, ANSWERED, FAILED = 1, 3, 4, 5, 6

-- Results of the host platform's operations.
local reasons = {
    [1] = "invalid", [2] = "no device root", [3] = "queue in use", [4] = "time-out",
    [5] = "nobody serves the queue", [6] = "queue full", [7] = "receiver ended or dropped it",
    [8] = "refused", [9] = "too large", [10] = "no memory", [11] = "system call failed",
    [12] = "not found"
}

-- The bytes of a packet, in their order. A packet that was cut has the first of them.
local layout = {
    { ProtoField.uint16("tamo.version", "Version"), 2 },
    { ProtoField.uint16("tamo.length", "Length of the event"), 2 },
    { ProtoField.uint32("tamo.kind", "Kind", base.DEC, kinds), 4 },
    { ProtoField.absolute_time("tamo.time", "Time", base.UTC), 8, "time" },
    { ProtoField.relative_time("tamo.duration", "Duration since the sending began"), 8, "duration" },
    { ProtoField.uint64("tamo.offset", "Handler's offset in the module", base.HEX), 8 },
    { ProtoField.uint32("tamo.pid", "Process id"), 4 },
    { ProtoField.uint32("tamo.tid", "Thread id"), 4 },
    { ProtoField.uint32("tamo.sender_pid", "Sender's process id"), 4 },
    { ProtoField.uint32("tamo.serial", "Serial"), 4 },
    { ProtoField.uint32("tamo.param", "Parameter"), 4 },
    { ProtoField.uint32("tamo.body_length", "Length of the body"), 4 },
    { ProtoField.uint32("tamo.list_length", "Length of the result list"), 4 },
    { ProtoField.uint32("tamo.result", "Result"), 4 },
    { ProtoField.stringz("tamo.queue", "Queue"), 16, "text" },
    { ProtoField.stringz("tamo.process", "Process"), 16, "text" },
    { ProtoField.stringz("tamo.module", "Handler's module"), 32, "text" },
}

-- What is made of them.
local event_name = ProtoField.string("tamo.event", "Event")
local reason = ProtoField.string("tamo.reason", "Reason")
local handler = ProtoField.string("tamo.handler", "Handler")
local request_in = ProtoField.framenum("tamo.request_in", "Request in", base.NONE, frametype.REQUEST)
local response_in = ProtoField.framenum("tamo.response_in", "Answer in", base.NONE, frametype.RESPONSE)
local since_request = ProtoField.relative_time("tamo.since_request", "Time since the request")

tamo.fields = { event_name, reason, handler, request_in, response_in, since_request }
for _, entry in ipairs(layout) do
    tamo.fields[#tamo.fields + 1] = entry[1]
end
local unsuccessful = ProtoExpert.new("tamo.unsuccessful", "The message was refused or failed",
    expert.group.RESPONSE_CODE, expert.severity.WARN)
tamo.experts = { unsuccessful }

-- ---- requests and answers ----

local requests -- by the sender's process, serial and queue, with and without its thread, which the
               -- receiver's events do not tell: the frame in which it was sent last
local times, request_of, response_of -- by frame

function tamo.init()
    requests, times, request_of, response_of = {}, {}, {}, {}
end

-- Called once for each frame, in order.
local function link(frame, event)
    local kind = event.kind
    local is_senders = kind == SENT or kind == ANSWERED or kind == FAILED
    local sender = is_senders and event.pid or event.sender_pid
    local process_key = sender .. "/" .. event.serial .. "/" .. event.queue
    local thread_key = event.tid .. "/" .. process_key
    times[frame] = event.time
    if event.serial == 0 then
        return
    end
    if kind == SENT then
        requests[process_key], requests[thread_key] = frame, frame
        return
    end
    local request = requests[is_senders and thread_key or process_key]
    request_of[frame] = request
    if request and is_senders then
        response_of[request] = frame
    end
end

-- ---- packets ----

-- `number` counts in parts of a second.
local function time_of(number, parts)
    local seconds = number / parts
    return NSTime.new(seconds:tonumber(), (number - seconds * parts):tonumber() * (1000000000 / parts))
end

-- Adds the fields that are there; returns their values by their names.
local function add_fields(tree, packet)
    local event, at = {}, 0
    for _, entry in ipairs(layout) do
        local field, size, form = entry[1], entry[2], entry[3]
        if at + size > packet:len() then
            break
        end
        local range, name = packet(at, size), tostring(field):match("tamo%.([%w_]+)")
        if form == "time" then
            event[name] = range:int64()
            tree:add(field, range, time_of(event[name], 1000000))
        elseif form == "duration" then
            if range:uint64() ~= UInt64(0) then
                tree:add(field, range, time_of(range:uint64(), 1000000000))
            end
        elseif form == "text" then
            event[name] = range:stringz()
            tree:add(field, range)
        else
            event[name] = size == 8 and range:uint64() or range:uint()
            tree:add(field, range)
        end
        at = at + size
    end
    return event
end

local function add_links(tree, frame)
    local request, response = request_of[frame], response_of[frame]
    if request then
        tree:add(request_in, request):set_generated()
        local us = times[frame] - times[request]
        tree:add(since_request, time_of(us, 1000000)):set_generated()
    end
    if response then
        tree:add(response_in, response):set_generated()
    end
end

-- Texts are what their processes made of them: nothing in a column moves a terminal's cursor.
local function clean(text)
    return (text:gsub("[%c\127]", "."))
end

function tamo.dissector(packet, pinfo, root)
    if packet:len() < 16 or packet(0, 2):uint() ~= 1 then
        return 0
    end
    local tree = root:add(tamo, packet())
    local event = add_fields(tree, packet)
    local name = kinds[event.kind] or "kind " .. event.kind
    local info = name
    tree:add(event_name, packet(4, 4), name):set_generated()
    if event.module and event.module ~= "" then
        local text = event.module .. "+0x" .. event.offset:tohex():gsub("^0+(.)", "%1")
        tree:add(handler, text):set_generated()
        info = info .. " " .. text .. "(" .. event.param .. ")"
    end
    local failed = event.kind == REFUSED or event.kind == FAILED
    if failed and event.result then
        local text = reasons[event.result] or "error " .. event.result
        tree:add(reason, text):set_generated()
        tree:add_proto_expert_info(unsuccessful, "The message was " ..
            (event.kind == REFUSED and "refused: " or "not answered: ") .. text)
        info = info .. ": " .. text
    elseif event.result and (event.kind == RESPONDED or event.kind == ANSWERED) then
        info = info .. ", result " .. event.result
    end
    if event.queue then
        if not pinfo.visited then
            link(pinfo.number, event)
        end
        add_links(tree, pinfo.number)
        pinfo.cols.dst = clean(event.queue)
    end
    if event.process then
        pinfo.cols.src = clean(event.process) .. "[" .. event.pid .. "/" .. event.tid .. "]"
    end
    pinfo.cols.protocol = "TAMO"
    pinfo.cols.info = clean(info)
    tree:append_text(", " .. clean(info))
    return packet:len()
end

DissectorTable.get("wtap_encap"):add((wtap_encaps or wtap).USER0, tamo)
