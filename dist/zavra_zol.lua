-- Wireshark dissector for ZOL records, the records of a modem's merged log stream, as
-- zavra_zom_info --pcapng and the zavra_extcap capture write them: link type 252 (upper PDU),
-- each packet naming the dissector "zol" (one whole record) or "zol_skipped" (bytes that
-- belong to no record). Installed in Wireshark's global Lua plugin folder, it needs no set-up.
--
-- Filter fields: zol.layout, zol.sync, zol.time, zol.length, zol.id, zol.padcount, zol.kor,
-- zol.body, zol.padding, zol.msg and the control messages' own fields, zol.skipped.

local zol = Proto("zol", "ZOL modem log record")
local zol_skipped = Proto("zol_skipped", "ZOL bytes outside records")

local LAYOUT_A, LAYOUT_B, LAYOUT_C = 1, 2, 3
local layout_names = { [LAYOUT_A] = "A (legacy)", [LAYOUT_B] = "B (per-KOR sync)", [LAYOUT_C] = "C" }
local layout_letters = { [LAYOUT_A] = "A", [LAYOUT_B] = "B", [LAYOUT_C] = "C" }
local SYNC_A, SYNC_C = 0x807F807F, 0x28C63FD7
-- Layout B: the 24-bit sync value names the core.
local kor_of_sync_b = {
    [0xFB3E98] = 0, [0xF2E05F] = 0, [0x30CF29] = 1, [0x78DAE4] = 1, [0xC426B9] = 2,
}
local MAX_BODY = 20480

-- The control messages, by offset from the open-channel id.
local control = {
    [0] = { name = "OS_LOG_CHANNEL_OPEN", body = 12 },
    [1] = { name = "OS_LOG_CHANNEL_CLOSE", body = 0 },
    [6] = { name = "OS_LOG_FLUSH_LOG_BUFFER", body = 0 },
    [11] = { name = "OS_LOG_HOST_TIME", body = 16 },
}

local f = zol.fields
f.layout = ProtoField.uint8("zol.layout", "Layout", base.DEC, layout_names)
f.sync = ProtoField.uint32("zol.sync", "Sync word", base.HEX)
f.time = ProtoField.uint64("zol.time", "Time stamp", base.DEC)
f.length = ProtoField.uint16("zol.length", "Length (32-bit words)", base.DEC)
f.packed = ProtoField.uint16("zol.packed", "Packed word", base.HEX)
f.id = ProtoField.uint16("zol.id", "Message id", base.HEX_DEC)
f.padcount = ProtoField.uint8("zol.padcount", "Padding count", base.DEC)
f.kor = ProtoField.uint8("zol.kor", "Core (KOR)", base.DEC)
f.body = ProtoField.bytes("zol.body", "Body")
f.padding = ProtoField.bytes("zol.padding", "Padding")
f.msg = ProtoField.string("zol.msg", "Control message")
f.deferred = ProtoField.uint32("zol.open.deferred", "Deferred logging", base.DEC,
    { [0] = "off", [1] = "on" })
f.threshold = ProtoField.uint32("zol.open.threshold", "Buffer threshold (percent)", base.DEC)
f.timeout = ProtoField.uint32("zol.open.timeout", "Timeout (seconds)", base.DEC)
f.host_time = ProtoField.absolute_time("zol.host_time", "Host time", base.UTC)
f.host_us = ProtoField.uint64("zol.host_time.us", "Host time (microseconds since 1970)", base.DEC)
f.midnight_us = ProtoField.uint64("zol.host_time.midnight_us",
    "Host's local time of day (microseconds since midnight)", base.DEC)
f.skipped = ProtoField.uint32("zol.skipped", "Bytes outside records", base.DEC)
f.skipped_data = ProtoField.bytes("zol.skipped.data", "Skipped bytes")

local e_length = ProtoExpert.new("zol.bad_length", "Bad record length",
    expert.group.MALFORMED, expert.severity.ERROR)
local e_padding = ProtoExpert.new("zol.bad_padding", "Bad padding",
    expert.group.MALFORMED, expert.severity.ERROR)
local e_sync = ProtoExpert.new("zol.unknown_sync", "Sync word of no known core",
    expert.group.PROTOCOL, expert.severity.WARN)
local e_skipped = ProtoExpert.new("zol.skipped.expert", "Bytes that belong to no record",
    expert.group.SEQUENCE, expert.severity.WARN)
zol.experts = { e_length, e_padding, e_sync, e_skipped }

zol.prefs.base_id = Pref.uint("Open-channel message id", 0x35,
    "The id of OS_LOG_CHANNEL_OPEN (the tool's -c option; 0 means 0x35). The other control "
    .. "messages count from it: close +1, flush +6, host time +11.")

local band, rshift = bit32.band, bit32.rshift

-- The header fields of the record at the start of tvb, by layout.
local function decode_header(tvb)
    local h = { sync = tvb(0, 4):le_uint(), packed = tvb(10, 2):le_uint(),
                length = tvb(8, 2):le_uint() }
    if h.sync == SYNC_A then
        h.layout = LAYOUT_A
        h.time_range, h.time = tvb(4, 4), UInt64.new(tvb(4, 4):le_uint(), 0)
        h.id, h.pad, h.kor = band(h.packed, 0x1FFF), band(rshift(h.packed, 13), 3), rshift(h.packed, 15)
    elseif h.sync == SYNC_C then
        h.layout = LAYOUT_C
        h.time_range, h.time = tvb(10, 2), UInt64.new(band(h.packed, 0xFFF), 0)
        h.id, h.pad, h.kor = band(rshift(h.packed, 12), 3), 0, rshift(h.packed, 14)
    else
        h.layout = LAYOUT_B
        h.sync = band(h.sync, 0xFFFFFF)
        h.time_range, h.time = tvb(3, 5), UInt64.new(tvb(4, 4):le_uint(), tvb(3, 1):uint())
        h.id, h.pad, h.kor = band(h.packed, 0x3FFF), rshift(h.packed, 14), kor_of_sync_b[h.sync]
    end
    return h
end

-- The body of a control message: its fields, and the Info text that sums it up.
local function dissect_control(msg, tvb, body, tree)
    if msg.name == "OS_LOG_CHANNEL_OPEN" and body >= 12 then
        local mode = tvb(12, 4):le_uint()
        tree:add_le(f.deferred, tvb(12, 4))
        tree:add_le(f.threshold, tvb(16, 4))
        tree:add_le(f.timeout, tvb(20, 4))
        if mode == 0 then
            return ", deferred logging off"
        end
        return string.format(", deferred logging on (%u%%, %u s)", tvb(16, 4):le_uint(),
            tvb(20, 4):le_uint())
    elseif msg.name == "OS_LOG_HOST_TIME" and body >= 16 then
        -- Two 64-bit values, each as two little-endian words with the high word first.
        local us = UInt64.new(tvb(16, 4):le_uint(), tvb(12, 4):le_uint())
        local midnight = UInt64.new(tvb(24, 4):le_uint(), tvb(20, 4):le_uint())
        local seconds = (us / 1000000):tonumber()
        local micro = (us % 1000000):tonumber()
        tree:add(f.host_time, tvb(12, 8), NSTime.new(seconds, micro * 1000))
        tree:add(f.host_us, tvb(12, 8), us)
        tree:add(f.midnight_us, tvb(20, 8), midnight)
        return ", " .. os.date("!%Y-%m-%d %H:%M:%S", seconds) .. string.format(".%06u UTC", micro)
    end
    return ""
end

function zol.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "ZOL"
    local size = tvb:len()
    local t = tree:add(zol, tvb())
    if size < 12 then
        t:add_proto_expert_info(e_length, "Shorter than a record header (12 bytes)")
        pinfo.cols.info = "Truncated record"
        return size
    end
    local h = decode_header(tvb)
    t:add(f.layout, h.layout):set_generated()
    t:add_le(f.sync, h.layout == LAYOUT_B and tvb(0, 3) or tvb(0, 4), h.sync)
    t:add(f.time, h.time_range, h.time)
    local length_item = t:add_le(f.length, tvb(8, 2))
    t:add_le(f.packed, tvb(10, 2))
    t:add(f.id, tvb(10, 2), h.id)
    t:add(f.padcount, tvb(10, 2), h.pad)
    local kor_item = t:add(f.kor, h.layout == LAYOUT_B and tvb(0, 3) or tvb(10, 2), h.kor or 0)
    if h.kor == nil then
        kor_item:add_proto_expert_info(e_sync)
    end

    local total = h.length * 4
    local body = total - 12 - h.pad
    local shown = body
    if total ~= size then
        length_item:add_proto_expert_info(e_length,
            string.format("The length field gives %u bytes, the record has %u", total, size))
    end
    if body < 0 then
        t:add_proto_expert_info(e_padding,
            string.format("%u padding bytes do not fit a record of %u bytes", h.pad, total))
        shown = 0
    elseif body > MAX_BODY then
        length_item:add_proto_expert_info(e_length,
            string.format("A body of %u bytes is longer than the %u a record may carry", body, MAX_BODY))
    end
    shown = math.max(0, math.min(shown, size - 12))
    if shown > 0 then
        t:add(f.body, tvb(12, shown))
    end
    local pad_shown = math.min(h.pad, size - 12 - shown)
    if h.pad > 0 and pad_shown > 0 then
        t:add(f.padding, tvb(12 + shown, pad_shown))
    end

    local info = string.format("KOR %u  id 0x%04X  layout %s  %u bytes", h.kor or 0, h.id,
        layout_letters[h.layout], math.max(body, 0))
    local base_id = zol.prefs.base_id ~= 0 and zol.prefs.base_id or 0x35
    local msg = h.layout == LAYOUT_A and control[h.id - base_id]
    if msg then
        t:add(f.msg, tvb(10, 2), msg.name)
        if body ~= msg.body then
            length_item:add_proto_expert_info(e_length,
                string.format("%s carries %u body bytes, not %u", msg.name, msg.body, math.max(body, 0)))
        end
        local detail = body >= 0 and size >= 12 + body and dissect_control(msg, tvb, body, t) or ""
        info = string.format("%s to KOR %u%s", msg.name, h.kor, detail)
    end
    t:append_text(", " .. info)
    pinfo.cols.info = info
    return size
end

function zol_skipped.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "ZOL"
    local size = tvb:len()
    local t = tree:add(zol, tvb(), "ZOL bytes outside records")
    t:add(f.skipped, tvb(), size):set_generated()
    t:add(f.skipped_data, tvb())
    t:add_proto_expert_info(e_skipped)
    pinfo.cols.info = string.format("Outside records: %u byte%s", size, size == 1 and "" or "s")
    return size
end
