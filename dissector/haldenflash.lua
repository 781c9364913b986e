-- Dissector for Wireshark 4.0 and later: the captures of haldenbench and haldencap, link type USER0 (147).
-- docs/protocol.md describes the messages and the captures, docs/wireshark.md the fields and their use.
--
-- A packet is taken for a message, a piece of one, or noise. What a reply is follows from the request before it on that
-- line. So packets are learned in their order, once. What was learned is kept by frame number, and shown in any order.
--
-- Wireshark tells the interface and the comments of a packet only where it builds a tree. It builds one when it loads a
-- file, and so does tshark. The first of the two passes of "tshark -2" has none, unless -R is given. There the form of
-- the messages tells the lines apart, which is right if no two lines wait for a reply at the same time. In the second
-- pass the packets are learned again, with interfaces and comments. Only the places of the replies are those of the
-- first pass, because they are in the future then.

-- luacheck: std lua52, read globals Proto ProtoField ProtoExpert Field DissectorTable ByteArray NSTime
-- luacheck: read globals base expert frametype wtap P2P_DIR_RECV P2P_DIR_SENT

local DELIMITER, ESCAPE = "\255", "\254"
local CHECKSUM_SIZE = 3
local ACK, NACK = 0x06, 0x0F
local STATUS_REQUEST, MICRO_BLOCK, CAMERA_BLOCK, SYSTEM_BLOCK = 0x44, 0x48, 0x88, 0x89

-- ---- Fields

local proto = Proto("haldenflash", "Haldenflash Serial Line")

local TYPES = {
    [0x41] = "not used", [0x42] = "not used", [0x43] = "not used", [0x81] = "not used",
    [STATUS_REQUEST] = "status request",
    [MICRO_BLOCK] = "microcontroller block or retry",
    [CAMERA_BLOCK] = "camera block",
    [SYSTEM_BLOCK] = "system block",
}
local VERDICTS = { [ACK] = "ack", [NACK] = "nack" }
local MODES = { [1] = "system image", [3] = "camera image", [5] = "both images" }
local WAYS = { "to the host", "to the device" } -- numbers of frame.packet_flags_direction
local TO_HOST, TO_DEVICE = 1, 2
local CHECKS = { [0] = "bad", [1] = "good" }
local REQUESTED = { [1] = "version" }

local F = {
    device = ProtoField.string("haldenflash.device", "Device"),
    direction = ProtoField.uint8("haldenflash.direction", "Direction", base.DEC, WAYS),
    message = ProtoField.string("haldenflash.message", "Message"),
    duration = ProtoField.relative_time("haldenflash.duration", "Time from the first byte to the last"),
    gap = ProtoField.relative_time("haldenflash.gap", "Time since the message before on this line"),
    delimiter = ProtoField.uint8("haldenflash.delimiter", "Delimiter", base.HEX),
    unstuffed = ProtoField.bytes("haldenflash.unstuffed", "Without stuffing"),
    type = ProtoField.uint8("haldenflash.type", "Type", base.HEX, TYPES),
    length = ProtoField.uint16("haldenflash.length", "Length of data and checksum", base.DEC),
    data = ProtoField.bytes("haldenflash.data", "Data"),
    checksum = ProtoField.uint24("haldenflash.checksum", "Checksum", base.HEX),
    due = ProtoField.uint24("haldenflash.checksum.due", "Checksum that is due", base.HEX),
    status = ProtoField.uint8("haldenflash.checksum.status", "Checksum status", base.DEC, CHECKS),
    requested = ProtoField.uint8("haldenflash.requested", "Requested", base.HEX, REQUESTED),
    image = ProtoField.string("haldenflash.image", "Image"),
    block = ProtoField.uint16("haldenflash.block", "Block", base.DEC),
    size = ProtoField.uint16("haldenflash.size", "Size of the image's bytes", base.DEC),
    bytes = ProtoField.bytes("haldenflash.bytes", "Bytes of the image"),
    retry = ProtoField.bool("haldenflash.retry", "Retry of a refused block"),
    verdict = ProtoField.uint8("haldenflash.verdict", "Verdict", base.HEX, VERDICTS),
    micro_version = ProtoField.uint8("haldenflash.version.micro", "Version of the microcontroller", base.HEX),
    system_version = ProtoField.string("haldenflash.version.system", "Version of the system image"),
    camera_version = ProtoField.string("haldenflash.version.camera", "Version of the camera image"),
    mode = ProtoField.uint8("haldenflash.mode", "Flash mode", base.DEC, MODES),
    camera_blocks = ProtoField.uint16("haldenflash.mode.camera_blocks", "Number of camera blocks", base.DEC),
    system_blocks = ProtoField.uint16("haldenflash.mode.system_blocks", "Number of system blocks", base.DEC),
    response_in = ProtoField.framenum("haldenflash.response_in", "Response in", base.NONE, frametype.RESPONSE),
    request_in = ProtoField.framenum("haldenflash.request_in", "Request in", base.NONE, frametype.REQUEST),
    response_time = ProtoField.relative_time("haldenflash.response_time", "Time from the end of the request"),
    noise = ProtoField.bytes("haldenflash.noise", "Noise"),
    piece = ProtoField.bytes("haldenflash.piece", "Piece"),
    call = ProtoField.string("haldenflash.call", "Call"),
    error = ProtoField.string("haldenflash.call.error", "Error"),
    remark = ProtoField.string("haldenflash.remark", "Remark on the capture"),
}
proto.fields = F

local severity, group = expert.severity, expert.group
local X = {
    checksum = ProtoExpert.new("haldenflash.bad_checksum", "Bad checksum", group.CHECKSUM, severity.ERROR),
    frame = ProtoExpert.new("haldenflash.bad_frame", "Bad frame", group.MALFORMED, severity.ERROR),
    piece = ProtoExpert.new("haldenflash.incomplete", "Incomplete message", group.MALFORMED, severity.WARN),
    noise = ProtoExpert.new("haldenflash.unexpected", "Unexpected bytes", group.UNDECODED, severity.WARN),
    type = ProtoExpert.new("haldenflash.unknown_type", "Frame that the updater does not send", group.PROTOCOL,
        severity.WARN),
    refused = ProtoExpert.new("haldenflash.refused", "Refused block", group.RESPONSE_CODE, severity.WARN),
    verdict = ProtoExpert.new("haldenflash.unknown_verdict", "Unknown verdict", group.RESPONSE_CODE, severity.WARN),
    silence = ProtoExpert.new("haldenflash.no_response", "No answer", group.SEQUENCE, severity.WARN),
    call = ProtoExpert.new("haldenflash.failed_call", "Failed call", group.PROTOCOL, severity.WARN),
    failed = ProtoExpert.new("haldenflash.failed_run", "Failed run", group.PROTOCOL, severity.ERROR),
    remark = ProtoExpert.new("haldenflash.capture_remark", "Remark on the capture", group.UNDECODED, severity.NOTE),
}
proto.experts = X

-- What Wireshark tells about a packet.
local frame_number = Field.new("frame.number")
local interface_name = Field.new("frame.interface_name")
local interface_id = Field.new("frame.interface_id")
local section_number = Field.new("frame.section_number")
local comments = Field.new("frame.comment")

-- ---- Numbers and bytes

local function word(bytes, at)
    local high, low = bytes:byte(at, at + 1)
    return high * 256 + low
end

local PLAIN = { ["\0"] = ESCAPE, ["\1"] = DELIMITER }

-- Undoes the escapes behind a delimiter, up to the first wrong one.
-- Returns the bytes, and the place of that wrong one if there is any.
local function unstuff(stuffed)
    local wrong = stuffed:find("\254[^\0\1]")
    local good = wrong and stuffed:sub(1, wrong - 1) or stuffed:gsub("\254$", "")
    return good:gsub("\254(.)", PLAIN), wrong
end

-- How many stuffed bytes the first ones of them without stuffing take.
local function stuffed_size(stuffed, count)
    local size, before = count, nil
    while size ~= before do
        local _, escapes = stuffed:sub(1, size):gsub(ESCAPE, "")
        size, before = count + escapes, size
    end
    return size
end

-- The checksum that makes the sum of the data 0 modulo 2^24.
local function checksum_of(data)
    local sum = 0
    for at = 1, #data do
        sum = sum + data:byte(at)
    end
    return -sum % 0x1000000
end

-- Characters of a version. A damaged one may be anything.
local function characters(bytes, at)
    return (bytes:sub(at, at + 3):gsub("[^\32-\126]", "?"))
end

-- ---- Messages
--
-- Bytes are cut into items. An item has these fields:
--   at, size   place in the packet
--   kind       "frame", "query", "mode", "noise", "piece", or that of a reply: "version", "mode_reply", "verdict"
--   name       as the bench names it
--   findings   list of an expert field and a text, for each thing that is wrong
--   expects    kind of the reply that is due behind a request
--   block      of a block, a retry, and the verdict on either
--   way        TO_HOST or TO_DEVICE
--   response   frame number of the reply to a request
--   request    packet with the request of a reply

local function new_item(at, size, kind, name)
    return { at = at, size = size, kind = kind, name = name, findings = {} }
end

local function find(item, field, text)
    table.insert(item.findings, { field = field, text = text })
end

local function noise(at, size)
    return new_item(at, size, "noise", "noise")
end

local IMAGES = { [MICRO_BLOCK] = "micro", [CAMERA_BLOCK] = "camera", [SYSTEM_BLOCK] = "system" }
local DEVICES = {
    [STATUS_REQUEST] = "micro", [MICRO_BLOCK] = "micro", [CAMERA_BLOCK] = "camera", [SYSTEM_BLOCK] = "camera",
}

local function name_block(item, data)
    item.expects, item.image = "verdict", IMAGES[item.type]
    if #data < 2 then
        item.name = "block without a number"
        find(item, X.frame, item.name)
        return
    end
    item.block = word(data, 1)
    local prefix = item.type == MICRO_BLOCK and "" or item.image .. " "
    item.name = string.format("%sblock %d with %d bytes", prefix, item.block, #data - 2)
end

-- Names a whole frame.
local function name_frame(line, item, data)
    local device = DEVICES[item.type]
    if not device or device ~= line.device then
        item.name = string.format("frame of type %02X", item.type)
        find(item, X.type, item.name .. ", which the updater does not send")
    elseif item.type == STATUS_REQUEST then
        item.name, item.expects = "status request", "version"
    elseif item.type == MICRO_BLOCK and #data == 0 then
        item.name, item.expects, item.retry = string.format("retry of block %d", line.block or 0), "verdict", true
        item.block, item.image = line.block, "micro"
    else
        name_block(item, data)
    end
end

local function check(item, plain)
    local data = plain:sub(4, item.length)
    local found = word(plain, item.length + 1) * 256 + plain:byte(item.length + 3)
    item.due = checksum_of(data)
    item.good = found == item.due
    if not item.good then
        find(item, X.checksum, string.format("checksum %06X where %06X is due", found, item.due))
    end
    return data
end

-- Says what is wrong with a frame that is not whole.
local function blame(item, stuffed, wrong, early)
    if item.length and item.length < CHECKSUM_SIZE then
        find(item, X.frame, string.format("length %d has no room for the checksum", item.length))
    elseif wrong and wrong < #stuffed then
        find(item, X.frame, string.format("wrong escape FE %02X", stuffed:byte(wrong + 1)))
    elseif early then
        find(item, X.frame, "FF inside a frame")
    end
end

local function cut_frame(line, bytes, at)
    local next_at = bytes:find(DELIMITER, at + 1, true)
    local stuffed = bytes:sub(at + 1, (next_at or 0) - 1)
    local plain, wrong = unstuff(stuffed)
    local item = new_item(at, #stuffed + 1, "piece", "piece of a message")
    item.framed = true
    if #plain >= 3 then
        item.type, item.length = plain:byte(1), word(plain, 2)
    end
    if not item.length or item.length < CHECKSUM_SIZE or #plain < 3 + item.length then
        blame(item, stuffed, wrong, next_at)
        return item
    end
    item.kind, item.size = "frame", 1 + stuffed_size(stuffed, 3 + item.length)
    line.device = line.device or DEVICES[item.type]
    name_frame(line, item, check(item, plain))
    return item
end

-- Messages to the camera without a frame.
local RAW = {
    { head = "\130\006\119", size = 3, kind = "query", expects = "version" },
    { head = "\135\067\114", size = 8, kind = "mode", expects = "mode_reply" },
}

local function name_mode(bytes, at)
    return string.format("flash mode %d, %d camera blocks, %d system blocks", bytes:byte(at + 3), word(bytes, at + 4),
        word(bytes, at + 6))
end

-- Nothing if there is no such message.
local function cut_raw(line, bytes, at)
    for _, raw in ipairs(RAW) do
        local begin = bytes:sub(at, at + #raw.head - 1)
        if line.device ~= "micro" and raw.head:sub(1, #begin) == begin then
            if #bytes - at + 1 < raw.size then
                return new_item(at, #bytes - at + 1, "piece", "piece of a message")
            end
            local item = new_item(at, raw.size, raw.kind, "version query")
            if raw.kind == "mode" then
                item.name = name_mode(bytes, at)
            end
            item.expects = raw.expects
            line.device = line.device or "camera"
            return item
        end
    end
end

local function cut_to_device(line, bytes)
    local items, at = {}, 1
    while at <= #bytes do
        local begin = bytes:find("[\255\130\135]", at) or #bytes + 1
        local item
        if begin == at then
            item = bytes:byte(at) == 0xFF and cut_frame(line, bytes, at) or cut_raw(line, bytes, at) or noise(at, 1)
        else
            item = noise(at, begin - at)
        end
        at = at + item.size
        local last = items[#items]
        if last and last.kind == "noise" and item.kind == "noise" then
            last.size = last.size + item.size
        else
            table.insert(items, item)
        end
    end
    return items
end

-- The host looks for FF, and then for 14. It drops any other byte, and begins again behind it.
local function micro_version_begin(bytes)
    local at = bytes:find(DELIMITER, 1, true)
    while at and at < #bytes and bytes:byte(at + 1) ~= 0x14 do
        at = bytes:find(DELIMITER, at + 2, true)
    end
    return at
end

-- By kind: size of the reply by device, where it begins in a packet, its name, that of a piece.
local REPLIES = {
    version = {
        size = function(device) return device == "micro" and 15 or 13 end,
        begin = function(device, bytes)
            return device == "micro" and micro_version_begin(bytes) or bytes:find("\160", 1, true)
        end,
        name = function(device, bytes, at)
            if device == "micro" then
                return string.format("version %02X", bytes:byte(at + 4))
            end
            return "version camera " .. characters(bytes, at + 9) .. " system " .. characters(bytes, at + 5)
        end,
        piece = "piece of a version",
    },
    mode_reply = {
        size = function() return 4 end,
        begin = function() return 1 end,
        name = function() return "flash mode" end,
        piece = "piece of a flash mode reply",
    },
    verdict = {
        size = function() return 2 end,
        begin = function() return 1 end,
        name = function(_, bytes, at) return VERDICTS[bytes:byte(at + 1)] or "unknown verdict" end,
        piece = "piece of a verdict",
    },
}

local function judge(item, bytes)
    item.verdict = bytes:byte(item.at + 1)
    local block = item.block and " of block " .. item.block or ""
    if item.verdict == NACK then
        find(item, X.refused, "refusal" .. block)
    elseif item.verdict ~= ACK then
        find(item, X.verdict, string.format("unknown verdict %02X%s", item.verdict, block))
    end
end

local function cut_reply(line, bytes, at)
    local reply = REPLIES[line.expected]
    local size = reply.size(line.device)
    local item = new_item(at, math.min(size, #bytes - at + 1), line.expected, reply.piece)
    item.reply = true
    if item.size < size then
        item.kind = "piece"
        return item
    end
    item.name = reply.name(line.device, bytes, at)
    if line.expected == "verdict" then
        item.block, item.image = line.block, line.image
        judge(item, bytes)
    end
    line.expected = nil
    return item
end

local function cut_to_host(line, bytes)
    local begin = line.expected and REPLIES[line.expected].begin(line.device, bytes)
    if not begin then
        return { noise(1, #bytes) }
    end
    local items = {}
    if begin > 1 then
        table.insert(items, noise(1, begin - 1))
    end
    local item = cut_reply(line, bytes, begin)
    table.insert(items, item)
    local behind = item.at + item.size
    if behind <= #bytes then
        table.insert(items, noise(behind, #bytes - behind + 1))
    end
    return items
end

-- ---- Lines and what was learned

local KNOWN = { micro = "micro", camera = "camera" }

local packets -- by frame number; see learn
local lines   -- by the name that line_of gives; one list for packets with a tree, and one for those without
local latest  -- by the same two: the line that the host spoke on last
local last_learned

-- Wireshark calls this for each file that it opens.
local function forget()
    packets, lines, latest, last_learned = {}, { [true] = {}, [false] = {} }, {}, nil
end
forget()
proto.init = forget

-- Whether bytes look like the beginning of a message of the host. It returns the device, too, if that is clear.
local function host_message(bytes)
    for _, raw in ipairs(RAW) do
        if bytes:sub(1, #raw.head) == raw.head then
            return true, "camera"
        end
    end
    local type = bytes:byte(2)
    if bytes:byte(1) == 0xFF and TYPES[type] then
        return true, DEVICES[type]
    end
    return false
end

-- The line of a packet: that of its interface. Where no interface is known its form tells it, and for a reply the
-- host's latest message.
local function line_of(source, way, bytes)
    local known = lines[source.tree]
    local key, device = source.interface, KNOWN[source.name]
    if not key then
        local _, clear = host_message(bytes)
        local active = latest[source.tree]
        if way == TO_HOST or not clear then
            key = active and active.key or "?"
        else
            key, device = clear, clear
        end
    end
    known[key] = known[key] or { key = key, device = device }
    return known[key]
end

-- A whole or partial message of the host begins something new. Noise does not.
local function take_request(line, packet, item)
    if item.kind == "frame" or item.expects then
        line.expected = item.expects
        if item.expects == "verdict" then
            line.block, line.image = item.block, item.image
        end
        line.asked = item.expects and { item = item, packet = packet }
    end
end

local function take_reply(line, packet, item)
    local asked = line.asked
    if item.reply and asked then
        asked.item.response = packet.number
        item.request = asked.packet
    end
end

local function take_bytes(packet, source, bytes)
    packet.way = source.way or (host_message(bytes) and TO_DEVICE or TO_HOST)
    local line = line_of(source, packet.way, bytes)
    line.last, packet.before_on_line = packet, line.last
    if packet.way == TO_DEVICE then
        latest[source.tree] = line
    end
    packet.items = (packet.way == TO_DEVICE and cut_to_device or cut_to_host)(line, bytes)
    packet.device = source.name ~= "program" and source.name or line.device
    for _, item in ipairs(packet.items) do
        (packet.way == TO_DEVICE and take_request or take_reply)(line, packet, item)
    end
end

-- A note is a packet without bytes, and its first comment.
local function take_note(packet, source)
    packet.note, packet.device = source.comments[1], source.name
    if not packet.note then
        return
    end
    local device, note = packet.note:match("^(%l+ ?%d?): (.*)$")
    if source.name == "program" and device then
        packet.device, packet.note = device, note
    end
end

-- A line that is closed begins anew.
local function close_line(packet, source)
    if packet.note == "close" and source.interface then
        lines[source.tree][source.interface] = nil
    end
end

-- The end of a message is in a comment of its packet.
local function duration_of(source)
    for _, comment in ipairs(source.comments) do
        local later = comment:match("^ends (%d+) us later$")
        if later and #later < 16 then
            return tonumber(later)
        end
    end
    return 0
end

-- What Wireshark knows of a packet apart from its bytes. Where there is a tree, the interface and comments are part.
local function source_of(pinfo)
    local source = { tree = frame_number() ~= nil, comments = {} }
    source.way = ({ [P2P_DIR_RECV] = TO_HOST, [P2P_DIR_SENT] = TO_DEVICE })[pinfo.p2p_dir]
    local name, id, section = interface_name(), interface_id(), section_number()
    if name and id then
        source.name = tostring(name.value)
        source.interface = tostring(section and section.value) .. " " .. tostring(id.value)
    end
    for _, comment in ipairs({ comments() }) do
        table.insert(source.comments, tostring(comment.value))
    end
    return source
end

-- Whether the packet stays as it was learned. One that was learned without a tree is learned again if there is a tree
-- now, and the packet before it was learned with one.
local function stays(packet, source)
    local before = packets[packet.before]
    return packet.tree or not source.tree or before ~= nil and not before.tree
end

-- Takes what is known with a tree only, and takes no part in what is learned of other packets.
local function complete(packet, source, bytes)
    if not source.tree then
        return
    end
    packet.finish = packet.begin + duration_of(source)
    if bytes == "" then
        take_note(packet, source)
    end
end

-- Returns the packet from the list. It takes it into the list first if need be. A packet has these fields:
--   number           frame number
--   begin, finish    microseconds; the end is known with a tree only
--   before           number of the packet that was learned before it
--   before_on_line   the packet with bytes before it on its line
--   tree             whether there was a tree
--   items, way       messages in it, and their way; none in a note
--   note             text of a note
--   device           name
local function learn(pinfo, bytes)
    local number, source = pinfo.number, source_of(pinfo)
    local old = packets[number]
    if old and stays(old, source) then
        complete(old, source, bytes)
        return old
    end
    local packet = { number = number, begin = math.floor(pinfo.abs_ts * 1000000 + 0.5), tree = source.tree,
                     before = old and old.before or last_learned, items = {} }
    complete(packet, source, bytes)
    if bytes == "" then
        close_line(packet, source)
    else
        take_bytes(packet, source, bytes)
    end
    for index, item in ipairs(packet.items) do
        item.response = item.response or old and old.items[index] and old.items[index].response
    end
    packets[number] = packet
    if not old then
        last_learned = number
    end
    return packet
end

-- ---- Showing

-- Adds a field that Wireshark marks as not being in the packet.
local function add_generated(tree, field, value)
    if value ~= nil then
        tree:add(field, value):set_generated()
    end
end

local LONGEST = 2 ^ 31 * 1000000 -- microseconds; a damaged time stamp may be anything

local function add_time(tree, field, from, to)
    local microseconds = from and to and to - from
    if microseconds and math.abs(microseconds) < LONGEST then
        local seconds = microseconds < 0 and math.ceil(microseconds / 1000000) or math.floor(microseconds / 1000000)
        add_generated(tree, field, NSTime.new(seconds, (microseconds - seconds * 1000000) * 1000))
    end
end

local function show_data(tree, item, range)
    if range:len() == 0 then
        return
    end
    local data = tree:add(F.data, range)
    if item.kind ~= "frame" or item.retry then
        return
    elseif item.expects == "version" then
        data:add(F.requested, range(0, 1))
    elseif item.block then
        data:add(F.block, range(0, 2))
        if range:len() > 2 then
            data:add(F.bytes, range(2))
        end
        add_generated(data, F.size, range:len() - 2)
    end
end

local function show_frame(tree, item, range)
    tree:add(F.delimiter, range(0, 1))
    local plain = unstuff(range:raw():sub(2))
    if plain == "" then
        return
    end
    plain = ByteArray.new(plain, true):tvb("Without stuffing")
    local inner = tree:add(F.unstuffed, plain())
    inner:add(F.type, plain(0, 1))
    if not item.length then
        return
    end
    inner:add(F.length, plain(1, 2))
    if item.kind ~= "frame" then
        inner:add(F.data, plain(3, nil))
        return
    end
    local data_size = item.length - CHECKSUM_SIZE
    show_data(inner, item, plain(3, data_size))
    inner:add(F.checksum, plain(3 + data_size, CHECKSUM_SIZE))
    add_generated(inner, F.due, item.due)
    add_generated(inner, F.status, item.good and 1 or 0)
end

local function show_version(tree, range)
    if range:len() == 15 then
        tree:add(F.micro_version, range(4, 1))
    else
        tree:add(F.system_version, range(5, 4), characters(range:raw(), 6))
        tree:add(F.camera_version, range(9, 4), characters(range:raw(), 10))
    end
end

local function show_mode(tree, range)
    tree:add(F.mode, range(3, 1))
    tree:add(F.camera_blocks, range(4, 2))
    tree:add(F.system_blocks, range(6, 2))
end

-- How the bytes of an item are shown, by its kind.
local SHOW = {
    version = show_version,
    mode = show_mode,
    verdict = function(tree, range) tree:add(F.verdict, range(1, 1)) end,
    noise = function(tree, range) tree:add(F.noise, range) end,
    piece = function(tree, range) tree:add(F.piece, range) end,
}

local REMARKS = {
    noise = { X.noise, "unexpected bytes" },
    piece = { X.piece, "incomplete message" },
}

local function show_findings(tree, item, pinfo)
    local remark = REMARKS[item.kind]
    if remark then
        tree:add_proto_expert_info(remark[1], remark[2])
    end
    for _, finding in ipairs(item.findings) do
        tree:add_proto_expert_info(finding.field, finding.text)
    end
    if item.expects and not item.response and pinfo.visited then
        tree:add_proto_expert_info(X.silence, "no answer")
    end
end

-- What the column "Info" tells of an item.
local function info_of(item)
    local texts = {}
    for _, finding in ipairs(item.findings) do
        if finding.text:sub(1, #item.name) ~= item.name and finding.field ~= X.refused then
            table.insert(texts, finding.text)
        end
    end
    return #texts == 0 and item.name or item.name .. " [" .. table.concat(texts, ", ") .. "]"
end

local function show_item(tree, packet, item, range, pinfo)
    tree:append_text(", " .. item.name)
    add_generated(tree, F.device, packet.device)
    add_generated(tree, F.direction, packet.way)
    add_generated(tree, F.message, item.name)
    if item.framed then
        show_frame(tree, item, range)
    end
    if SHOW[item.kind] then
        SHOW[item.kind](tree, range)
    end
    add_generated(tree, F.image, item.image)
    if item.reply or item.retry then
        add_generated(tree, F.block, item.block)
    end
    add_generated(tree, F.retry, item.retry)
    add_generated(tree, F.response_in, item.response)
    if item.request then
        add_generated(tree, F.request_in, item.request.number)
        add_time(tree, F.response_time, item.request.finish, packet.begin)
    end
    show_findings(tree, item, pinfo)
end

local function show_note(tree, packet)
    tree:append_text(", " .. packet.note)
    add_generated(tree, F.device, packet.device)
    local remark = packet.note:match("^! (.*)$")
    if remark then
        add_generated(tree, F.remark, remark)
        tree:add_proto_expert_info(X.remark, remark)
        return
    end
    add_generated(tree, F.call, packet.note)
    local failure = packet.note:match(" refused (%S+)$")
    add_generated(tree, F.error, failure)
    if failure or packet.note:find("^write %d+ of %d+ bytes$") then
        tree:add_proto_expert_info(X.call, packet.note)
    elseif packet.note:find("^signal %d") or packet.note:find("^exit [1-9]") then
        tree:add_proto_expert_info(X.failed, packet.note)
    end
end

local function set_columns(pinfo, packet, info)
    pinfo.cols.protocol = "HaldenFlash"
    pinfo.cols.info = info
    local device = packet.device or "device"
    if packet.way == TO_DEVICE then
        pinfo.cols.src, pinfo.cols.dst = "host", device
    elseif packet.way == TO_HOST then
        pinfo.cols.src, pinfo.cols.dst = device, "host"
    else
        pinfo.cols.src = device
    end
end

function proto.dissector(tvb, pinfo, tree)
    local size = tvb:len()
    local packet = learn(pinfo, size > 0 and tvb:raw() or "")
    local infos = {}
    for _, item in ipairs(packet.items) do
        local range = tvb(item.at - 1, item.size)
        local subtree = tree:add(proto, range)
        show_item(subtree, packet, item, range, pinfo)
        add_time(subtree, F.duration, packet.begin, packet.finish)
        add_time(subtree, F.gap, packet.before_on_line and packet.before_on_line.finish, packet.begin)
        table.insert(infos, info_of(item))
    end
    if packet.note then
        show_note(tree:add(proto, tvb()), packet)
        infos = { packet.note }
    end
    set_columns(pinfo, packet, table.concat(infos, ", "))
    return math.max(size, 1) -- a packet without bytes is ours, too
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, proto)
