-- Wireshark dissector for the ls_xbc_cpu_direct character protocol.
--
-- Requests run from STX to ETX: command letter, memory-area letter, byte
-- address (two hex pairs, low byte first), "00", then a byte count (r), a
-- byte count and data (w) or a bit mask (o, n), and a checksum pair. Replies
-- run from ACK or NAK to EOT. The checksum is the low byte of the sum of the
-- bytes after the first one up to the checksum, written as a hex pair.
--
-- Works on the captures that `xbc-host --capture` writes (exported PDUs that
-- name this dissector and mark their direction) and on TCP port 8000.
-- Install: copy this file to ~/.local/lib/wireshark/plugins/.

local xbc = Proto("xbc", "ls_xbc_cpu_direct PLC protocol")

local STX, ETX, EOT, ACK, NAK = 0x02, 0x03, 0x04, 0x06, 0x15
local PLC_TCP_PORT = 8000
local DIR_SENT, DIR_RECV = 0, 1 -- packet-direction values of exported PDUs

local READ_LEN, BIT_LEN, WRITE_BASE_LEN = 14, 16, 14
local ACK_BASE_LEN, NAK_LEN = 5, 7
local ADDRESS_POS, ZEROS_POS, BODY_POS = 3, 7, 9
local REPLY_DATA_POS = 2
local LONGEST_FRAME = 4096 -- beyond this a stream without an end byte is not ours

local COMMANDS = {
    r = "read words",
    w = "write words",
    o = "set bit",
    n = "clear bit",
}

-- Memory-area letters and the registers that use them.
local AREAS = {
    h = { "P_W", "P_bit" },
    i = { "M_W", "M_bit" },
    j = { "L_W", "L_bit" },
    k = { "K_W", "K_bit" },
    n = { "F_W", "F_bit" },
    a = { "D_W" },
    o = { "S_W" },
    b = { "T_W" },
    c = { "C_W" },
    p = { "N_W" },
    s = { "Z_W" },
    l = { "TX" },
    m = { "CX" },
}
-- TX and CX are contact areas: a bit is named by its contact number.
local CONTACT_AREAS = { l = true, m = true }

-- Error codes of NAK replies.
local ERRORS = {
    [0x01] = "malformed request",
    [0x02] = "checksum wrong",
    [0x03] = "unknown command",
    [0x04] = "unknown memory area",
    [0x05] = "address out of range",
    [0x06] = "byte count wrong",
}

local DIRECTIONS = { [0] = "request (panel to PLC)", [1] = "reply (PLC to panel)" }

local f = {
    direction = ProtoField.uint8("xbc.direction", "Direction", base.DEC, DIRECTIONS),
    command = ProtoField.string("xbc.command", "Command"),
    area = ProtoField.string("xbc.area", "Memory area"),
    registers = ProtoField.string("xbc.registers", "Registers"),
    address = ProtoField.uint16("xbc.address", "Byte address", base.DEC),
    word = ProtoField.uint16("xbc.word", "Word number", base.DEC),
    count = ProtoField.uint8("xbc.count", "Byte count", base.DEC),
    words = ProtoField.uint16("xbc.words", "Words", base.DEC),
    data = ProtoField.uint16("xbc.data", "Data word", base.HEX_DEC),
    mask = ProtoField.uint16("xbc.mask", "Bit mask", base.HEX),
    bit = ProtoField.uint8("xbc.bit", "Bit in word", base.DEC),
    bit_name = ProtoField.string("xbc.bit_name", "Bit"),
    bit_action = ProtoField.string("xbc.bit_action", "Bit action"),
    reply = ProtoField.string("xbc.reply", "Reply"),
    reply_command = ProtoField.string("xbc.reply_command", "Command character"),
    error = ProtoField.uint8("xbc.error", "Error code", base.HEX, ERRORS),
    checksum = ProtoField.uint8("xbc.checksum", "Checksum", base.HEX),
    checksum_status = ProtoField.string("xbc.checksum.status", "Checksum status"),
    checksum_computed = ProtoField.uint8("xbc.checksum.computed", "Computed checksum", base.HEX),
    expected_length = ProtoField.uint16("xbc.expected_length", "Expected length", base.DEC),
    timeout = ProtoField.bool("xbc.timeout", "No reply (timeout)"),
    response_to = ProtoField.framenum("xbc.response_to", "Response to",
        base.NONE, frametype and frametype.REQUEST),
    response_in = ProtoField.framenum("xbc.response_in", "Response in",
        base.NONE, frametype and frametype.RESPONSE),
    response_time = ProtoField.relative_time("xbc.response_time", "Response time"),
}
xbc.fields = {
    f.direction, f.command, f.area, f.registers, f.address, f.word, f.count, f.words,
    f.data, f.mask, f.bit, f.bit_name, f.bit_action, f.reply, f.reply_command, f.error,
    f.checksum, f.checksum_status, f.checksum_computed, f.expected_length, f.timeout,
    f.response_to, f.response_in, f.response_time,
}

local ex = {
    checksum = ProtoExpert.new("xbc.checksum.wrong", "Checksum wrong",
        expert.group.CHECKSUM, expert.severity.ERROR),
    length = ProtoExpert.new("xbc.length_mismatch", "Reply length does not match the request",
        expert.group.MALFORMED, expert.severity.ERROR),
    cut = ProtoExpert.new("xbc.incomplete", "Frame without its end byte",
        expert.group.MALFORMED, expert.severity.ERROR),
    malformed = ProtoExpert.new("xbc.malformed", "Malformed frame",
        expert.group.MALFORMED, expert.severity.ERROR),
    timeout = ProtoExpert.new("xbc.no_reply", "No reply before the timeout",
        expert.group.RESPONSE_CODE, expert.severity.WARN),
    nak = ProtoExpert.new("xbc.nak", "PLC refused the request",
        expert.group.RESPONSE_CODE, expert.severity.WARN),
    unpaired = ProtoExpert.new("xbc.unpaired", "Reply without a request waiting for it",
        expert.group.SEQUENCE, expert.severity.WARN),
}
xbc.experts = { ex.checksum, ex.length, ex.cut, ex.malformed, ex.timeout, ex.nak, ex.unpaired }

-- Pairing state, built on the first pass and kept per frame number so that
-- later passes (and the GUI) show the same.
local last_request = {} -- conversation key -> request record
local frames = {}       -- frame number -> record

function xbc.init()
    last_request = {}
    frames = {}
end

local function hex_value(c)
    if c >= 0x30 and c <= 0x39 then return c - 0x30 end
    if c >= 0x41 and c <= 0x46 then return c - 0x37 end
    return nil
end

-- One hex pair at pos, or nil when it is not two upper-case hex characters.
local function hex_pair(tvb, pos)
    if pos + 2 > tvb:len() then return nil end
    local hi, lo = hex_value(tvb(pos, 1):uint()), hex_value(tvb(pos + 1, 1):uint())
    if not hi or not lo then return nil end
    return hi * 16 + lo
end

-- A 16-bit quantity as two hex pairs, low byte first.
local function hex16(tvb, pos)
    local lo, hi = hex_pair(tvb, pos), hex_pair(tvb, pos + 2)
    if not lo or not hi then return nil end
    return lo + hi * 256
end

local function byte_sum(tvb, from, to)
    local sum = 0
    for i = from, to - 1 do sum = sum + tvb(i, 1):uint() end
    return sum % 256
end

local function seconds_to_nstime(s)
    local secs = math.floor(s)
    return NSTime.new(secs, math.floor((s - secs) * 1e9 + 0.5))
end

local function conversation_key(pinfo)
    local a = tostring(pinfo.src) .. ":" .. tostring(pinfo.src_port)
    local b = tostring(pinfo.dst) .. ":" .. tostring(pinfo.dst_port)
    if a > b then a, b = b, a end
    return a .. "|" .. b
end

local function is_request(tvb, pinfo)
    if pinfo.p2p_dir == DIR_SENT then return true end
    if pinfo.p2p_dir == DIR_RECV then return false end
    if pinfo.dst_port == PLC_TCP_PORT or pinfo.dst_port == pinfo.match_uint then
        return pinfo.src_port ~= pinfo.dst_port
    end
    if pinfo.src_port == PLC_TCP_PORT or pinfo.src_port == pinfo.match_uint then return false end
    return tvb:len() > 0 and tvb(0, 1):uint() == STX
end

local function register_of(letter, bit)
    local regs = AREAS[letter]
    if not regs then return nil end
    if bit and #regs > 1 then return regs[2] end
    return regs[1]
end

local function bit_name(letter, word, bit)
    if CONTACT_AREAS[letter] then
        return string.format("%s %d", register_of(letter, true), word * 16 + bit)
    end
    local reg = register_of(letter, true) or ("area " .. letter)
    return string.format("%s %d.%d", reg, word, bit)
end

-- The one bit a mask names: the set bit of an "o" mask, the clear bit of an
-- "n" mask; nil when the mask names no single bit.
local function bit_of_mask(command, mask)
    local target = command == "o" and mask or (0xFFFF - mask)
    for b = 0, 15 do
        if target == 2 ^ b then return b end
    end
    return nil
end

-- Adds the checksum pair that ends at the frame's last byte but one.
local function add_checksum(tvb, tree, n)
    local pos = n - 3
    local computed = byte_sum(tvb, 1, pos)
    local sent = hex_pair(tvb, pos)
    local item
    if sent then
        item = tree:add(f.checksum, tvb(pos, 2), sent)
    else
        item = tree:add(f.checksum_status, tvb(pos, 2), "wrong")
        item:append_text(" (not a hex pair)")
    end
    local good = sent == computed
    if sent then
        tree:add(f.checksum_status, tvb(pos, 2), good and "valid" or "wrong"):set_generated()
    end
    tree:add(f.checksum_computed, tvb(pos, 2), computed):set_generated()
    if not good then
        item:add_proto_expert_info(ex.checksum,
            string.format("Checksum wrong: the bytes sum to %02X", computed))
    end
    return good
end

local function word_label(letter, word)
    local reg = register_of(letter, false) or ("area " .. letter)
    if CONTACT_AREAS[letter] then
        return string.format("%s %d-%d", reg, word * 16, word * 16 + 15)
    end
    return string.format("%s %d", reg, word)
end

-- The contacts a word of TX or CX holds on: bit b of the word (the low byte
-- travels first) is contact word * 16 + b.
local function contacts_on(word, value)
    local on = {}
    for b = 0, 15 do
        if math.floor(value / 2 ^ b) % 2 == 1 then on[#on + 1] = tostring(word * 16 + b) end
    end
    return #on > 0 and table.concat(on, ", ") or "none"
end

-- Data words as hex pairs from pos, four characters per word.
local function add_words(tvb, tree, pos, count, letter, first_word)
    for k = 0, count - 1 do
        local at = pos + 4 * k
        local value = hex16(tvb, at)
        if value then
            local label = string.format("Data: word %d = 0x%04X (%d)", k, value, value)
            if first_word and letter then
                label = string.format("Data: %s = 0x%04X (%d)", word_label(letter, first_word + k),
                    value, value)
                if CONTACT_AREAS[letter] then
                    label = label .. ", on: " .. contacts_on(first_word + k, value)
                end
            end
            tree:add(f.data, tvb(at, 4), value, label)
        else
            tree:add_tvb_expert_info(ex.malformed, tvb(at, 4), "Data word is not hex")
        end
    end
end

local function dissect_request(tvb, pinfo, tree, rec)
    local n = tvb:len()
    tree:add(f.direction, DIR_SENT):set_generated()
    if n < 2 or tvb(0, 1):uint() ~= STX then
        tree:add_proto_expert_info(ex.malformed, "Request does not start with STX")
        return "Request (malformed)"
    end
    local command = tvb(1, 1):string()
    tree:add(f.command, tvb(1, 1)):append_text(" (" .. (COMMANDS[command] or "unknown") .. ")")
    if tvb(n - 1, 1):uint() ~= ETX then
        tree:add_proto_expert_info(ex.cut, "Request does not end with ETX")
        return "Request " .. command .. " (no ETX)"
    end
    if n < READ_LEN then
        tree:add_proto_expert_info(ex.malformed, "Request too short")
        return "Request " .. command .. " (too short)"
    end
    local letter = tvb(2, 1):string()
    local regs = AREAS[letter]
    tree:add(f.area, tvb(2, 1)):append_text(regs and (" (" .. table.concat(regs, ", ") .. ")")
        or " (unknown)")
    if regs then
        tree:add(f.registers, tvb(2, 1), table.concat(regs, ", ")):set_generated()
    end
    local address = hex16(tvb, ADDRESS_POS)
    local word
    if address then
        tree:add(f.address, tvb(ADDRESS_POS, 4), address)
        word = math.floor(address / 2)
        tree:add(f.word, tvb(ADDRESS_POS, 4), word):set_generated()
    else
        tree:add_tvb_expert_info(ex.malformed, tvb(ADDRESS_POS, 4), "Address is not hex")
    end
    if tvb(ZEROS_POS, 2):string() ~= "00" then
        tree:add_tvb_expert_info(ex.malformed, tvb(ZEROS_POS, 2), "Expected the characters 00")
    end
    local info = string.format("Request %s %s", command,
        word and word_label(letter, word) or ("area " .. letter))
    rec.command, rec.letter, rec.word = command, letter, word
    if command == "r" or command == "w" then
        local count = hex_pair(tvb, BODY_POS)
        if count then
            tree:add(f.count, tvb(BODY_POS, 2), count)
            local words = math.floor(count / 2)
            tree:add(f.words, tvb(BODY_POS, 2), words):set_generated()
            info = info .. string.format(", %d word%s", words, words == 1 and "" or "s")
            rec.words = words
            if command == "r" then
                rec.reply_len = ACK_BASE_LEN + 4 * words
            elseif n ~= WRITE_BASE_LEN + 2 * count then
                tree:add_proto_expert_info(ex.malformed,
                    string.format("Length %d does not fit the byte count %d", n, count))
            end
            if command == "w" then
                add_words(tvb, tree, BODY_POS + 2, math.floor((n - WRITE_BASE_LEN) / 4),
                    letter, word)
            end
        else
            tree:add_tvb_expert_info(ex.malformed, tvb(BODY_POS, 2), "Byte count is not hex")
        end
        if command == "r" and n ~= READ_LEN then
            tree:add_proto_expert_info(ex.malformed, "A read request is 14 bytes long")
        end
    elseif command == "o" or command == "n" then
        local mask = n == BIT_LEN and hex16(tvb, BODY_POS)
        if mask then
            tree:add(f.mask, tvb(BODY_POS, 4), mask)
            local b = bit_of_mask(command, mask)
            local action = command == "o" and "set" or "clear"
            tree:add(f.bit_action, tvb(1, 1), action):set_generated()
            if b then
                tree:add(f.bit, tvb(BODY_POS, 4), b):set_generated()
                if word then
                    local name = bit_name(letter, word, b)
                    tree:add(f.bit_name, tvb(BODY_POS, 4), name):set_generated()
                    info = string.format("Request %s %s (%s)", command, name, action)
                end
            else
                tree:add_tvb_expert_info(ex.malformed, tvb(BODY_POS, 4),
                    "The mask names no single bit")
            end
        else
            tree:add_proto_expert_info(ex.malformed, "A bit request is 16 bytes long")
        end
    end
    rec.reply_len = rec.reply_len or ACK_BASE_LEN
    if not add_checksum(tvb, tree, n) then info = info .. " [checksum wrong]" end
    return info
end

local function add_pairing(tvb, tree, rec)
    local req = rec.request
    if not req then
        if not rec.timeout then
            tree:add_proto_expert_info(ex.unpaired)
        end
        return nil
    end
    tree:add(f.response_to, tvb(0, 0), req.number):set_generated()
    tree:add(f.response_time, tvb(0, 0), seconds_to_nstime(rec.delta)):set_generated()
    return req
end

local function dissect_reply(tvb, pinfo, tree, rec)
    local n = tvb:len()
    tree:add(f.direction, DIR_RECV):set_generated()
    local req = add_pairing(tvb, tree, rec)
    if n == 0 then
        tree:add(f.timeout, tvb(0, 0), true):set_generated()
        tree:add_proto_expert_info(ex.timeout)
        return "Timeout: no reply"
    end
    local first = tvb(0, 1):uint()
    local kind = first == ACK and "ACK" or first == NAK and "NAK" or nil
    if not kind then
        tree:add_proto_expert_info(ex.malformed, "Reply does not start with ACK or NAK")
        return "Reply (malformed)"
    end
    tree:add(f.reply, tvb(0, 1), kind)
    if n >= 2 then tree:add(f.reply_command, tvb(1, 1)) end
    local info = "Reply " .. kind
    local ended = tvb(n - 1, 1):uint() == EOT
    local expected = kind == "NAK" and NAK_LEN or (req and req.reply_len)
    if expected then
        tree:add(f.expected_length, tvb(0, 0), expected):set_generated()
        if n ~= expected then
            tree:add_proto_expert_info(ex.length,
                string.format("Reply is %d bytes, %d expected", n, expected))
            info = info .. string.format(" [length %d, expected %d]", n, expected)
        end
    end
    if not ended then
        tree:add_proto_expert_info(ex.cut, "Reply does not end with EOT")
        return info .. " [no EOT]"
    end
    local body_end = n - 3 -- checksum pair
    if kind == "NAK" then
        local code = n >= NAK_LEN and hex_pair(tvb, REPLY_DATA_POS)
        if code then
            tree:add(f.error, tvb(REPLY_DATA_POS, 2), code)
            info = info .. string.format(", error %02X (%s)", code, ERRORS[code] or "unknown")
        end
        tree:add_proto_expert_info(ex.nak)
    elseif body_end > REPLY_DATA_POS then
        local words = math.floor((body_end - REPLY_DATA_POS) / 4)
        tree:add(f.words, tvb(REPLY_DATA_POS, body_end - REPLY_DATA_POS), words):set_generated()
        add_words(tvb, tree, REPLY_DATA_POS, words, req and req.letter, req and req.word)
        info = info .. string.format(", %d word%s", words, words == 1 and "" or "s")
    end
    if n >= 4 and not add_checksum(tvb, tree, n) then info = info .. " [checksum wrong]" end
    return info
end

-- First pass: remember requests and pair each reply (or timeout) with the
-- request it answers.
-- Records are keyed by frame number and the frame's place in the packet (a
-- TCP segment may carry more than one).
local function record_of(tvb, pinfo, request, index)
    local id = pinfo.number .. "/" .. index
    local rec = frames[id]
    if rec then return rec end
    rec = { number = pinfo.number }
    frames[id] = rec
    local key = conversation_key(pinfo)
    if request then
        rec.time = pinfo.abs_ts
        last_request[key] = id
    else
        rec.timeout = tvb:len() == 0
        local req = last_request[key] and frames[last_request[key]]
        if req then
            rec.request = req
            rec.delta = pinfo.abs_ts - req.time
            req.response_in = req.response_in or pinfo.number
        end
    end
    return rec
end

local function dissect_one(tvb, pinfo, tree, request, index)
    local rec = record_of(tvb, pinfo, request, index)
    local subtree = tree:add(xbc, tvb())
    local info
    if request then
        info = dissect_request(tvb, pinfo, subtree, rec)
        if rec.response_in then
            subtree:add(f.response_in, tvb(0, 0), rec.response_in):set_generated()
        end
    else
        info = dissect_reply(tvb, pinfo, subtree, rec)
    end
    subtree:append_text(": " .. info)
    return info
end

-- Length of the frame at offset in a TCP stream: up to its end byte, or up
-- to the next start byte when a frame was cut short. nil: need more bytes.
local function stream_frame_length(tvb, offset, request)
    local n = tvb:len()
    local end_byte = request and ETX or EOT
    for i = offset + 1, n - 1 do
        local c = tvb(i, 1):uint()
        if c == end_byte then return i - offset + 1 end
        if (request and c == STX) or (not request and (c == ACK or c == NAK)) then
            return i - offset
        end
    end
    if n - offset > LONGEST_FRAME then return n - offset end
    return nil
end

-- A TCP stream is cut into frames at their end bytes; a capture record of
-- xbc-host holds exactly one frame as it was on the line (TCP reassembly is
-- what sets can_desegment, so a record never waits for more bytes).
function xbc.dissector(tvb, pinfo, tree)
    local request = is_request(tvb, pinfo)
    local n = tvb:len()
    local stream = pinfo.can_desegment > 0
    local infos = {}
    local offset = 0
    repeat
        local len = n - offset
        if stream then
            len = stream_frame_length(tvb, offset, request)
            if not len then
                pinfo.desegment_offset = offset
                pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
                break
            end
        end
        local frame = offset == 0 and len == n and tvb or tvb(offset, len):tvb()
        infos[#infos + 1] = dissect_one(frame, pinfo, tree, request, #infos)
        offset = offset + len
    until offset >= n
    if #infos > 0 then
        pinfo.cols.protocol = "XBC"
        pinfo.cols.info = table.concat(infos, "; ")
    end
    return n
end

DissectorTable.get("tcp.port"):add(PLC_TCP_PORT, xbc)
