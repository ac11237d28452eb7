-- kep.lua: shows the collection service and the configuration queries in Wireshark and tshark; docs/wire.md explains
-- both, and how to use this file.
--
-- A run is found by its request, which names the server's port. The messages of a run depend on those before: what a
-- message found when it came first is kept, so that it is shown the same in whatever order packets are looked at. When
-- packets come first, fields of other protocols may not be there yet, so that nothing of a run hangs on them.

local kep = Proto("kep", "kep collection")
local conf = Proto("kepconfig", "kep configuration")

local TYPES = { [0] = "identity", "catalogue", "data" }
local REQUESTS = { [0] = "collection, type 0", "collection, type 1", "collection, type 2", "self-test" }
local KINDS = { [0x81] = "int", [0x82] = "long", [3] = "string", [0x83] = "string", [4] = "buffer", [0x84] = "buffer" }
local RECORDS = { [0x81] = "integer", [0x82] = "long", [0x83] = "string", [0x84] = "buffer",
                  [3] = "piece of a string", [4] = "piece of a buffer" }
local HEADER, LONGEST, LONGEST_NAME, LONGEST_SECTION, LONGEST_ACK, LONGEST_QUERY = 12, 1036, 19, 256, 16, 1000
local TESTED_ITEM = 0xFFFF -- under which a self-test announces the item it turns to

local f = {
  request_length = ProtoField.int32("kep.request.length", "Length"),
  request_type = ProtoField.uint32("kep.request.type", "Type", base.DEC, REQUESTS),
  request_sequence = ProtoField.int32("kep.request.sequence", "Sequence"),
  request_port = ProtoField.uint32("kep.request.port", "Server port"),
  length = ProtoField.int32("kep.length", "Length"),
  type = ProtoField.int32("kep.type", "Type", base.DEC, TYPES),
  sequence = ProtoField.int32("kep.sequence", "Sequence"),
  identity = ProtoField.bytes("kep.identity", "Identity"),
  entry_item = ProtoField.int32("kep.catalogue.item", "Item"),
  entry_name = ProtoField.string("kep.catalogue.name", "Name"),
  record = ProtoField.uint8("kep.record.type", "Record", base.HEX, RECORDS),
  record_item = ProtoField.int32("kep.record.item", "Item"),
  record_section = ProtoField.int32("kep.record.section", "Section"),
  record_key = ProtoField.int32("kep.record.key", "Key"),
  record_length = ProtoField.uint16("kep.record.length", "Length"),
  record_bytes = ProtoField.bytes("kep.record.bytes", "Bytes"),
  tested = ProtoField.string("kep.tested", "Self-test of"),
  item = ProtoField.int32("kep.value.item", "Item"),
  name = ProtoField.string("kep.value.name", "Item's name"),
  section = ProtoField.int32("kep.value.section", "Section"),
  key = ProtoField.int32("kep.value.key", "Key"),
  kind = ProtoField.string("kep.value.kind", "Kind"),
  int = ProtoField.int32("kep.value.int", "Value"),
  long = ProtoField.int64("kep.value.long", "Value"),
  text = ProtoField.string("kep.value.text", "Value as text"),
  bytes = ProtoField.bytes("kep.value.bytes", "Value"),
  shown = ProtoField.string("kep.value.shown", "By its names"),
  messages = ProtoField.uint32("kep.run.messages", "Messages so far"),
  records = ProtoField.uint32("kep.run.records", "Records so far"),
  total = ProtoField.uint32("kep.run.bytes", "Bytes so far"),
  whole = ProtoField.bool("kep.run.whole", "Whole if it ends here"),
  damage = ProtoField.string("kep.damage", "Damage"),
  request_frame = ProtoField.framenum("kep.request.frame", "Request in", base.NONE, frametype.REQUEST),
  ack = ProtoField.bytes("kep.ack", "Acknowledgement"),
  ack_frame = ProtoField.framenum("kep.ack.message", "Of the message in", base.NONE, frametype.ACK),
}
local e = {
  dropped = ProtoExpert.new("kep.request.dropped", "The board drops it", expert.group.PROTOCOL, expert.severity.ERROR),
  noted = ProtoExpert.new("kep.request.noted", "What the board makes of it", expert.group.PROTOCOL,
                          expert.severity.NOTE),
  futile = ProtoExpert.new("kep.request.futile", "No run comes of it", expert.group.PROTOCOL, expert.severity.WARN),
  unasked = ProtoExpert.new("kep.run.unasked", "Not as requested", expert.group.SEQUENCE, expert.severity.WARN),
  damage = ProtoExpert.new("kep.damage.expert", "The run is damaged", expert.group.MALFORMED, expert.severity.ERROR),
  ack = ProtoExpert.new("kep.ack.wrong", "Not an acknowledgement", expert.group.PROTOCOL, expert.severity.WARN),
}
kep.fields, kep.experts = {}, {}
for _, field in pairs(f) do table.insert(kep.fields, field) end
for _, field in pairs(e) do table.insert(kep.experts, field) end

kep.prefs.port = Pref.uint("Port of requests", 9099, "The UDP port at which boards take requests")
kep.prefs.names = Pref.string("Names", "", "What kep-names --lua made of a names file")

local tcp_fin, tcp_seq, tcp_len = Field.new("tcp.flags.fin"), Field.new("tcp.seq"), Field.new("tcp.len")
local udp_ports, tcp_ports = DissectorTable.get("udp.port"), DissectorTable.get("tcp.port")

local names                          -- nil without a names file
local request_port                   -- under which kep is registered
local requests, runs, seen, queries  -- of the capture
local server_ports = {}              -- that its requests name

-- ---- names

local function load_names()
  names = nil
  if kep.prefs.names == "" then return end
  local ok, loaded = pcall(dofile, kep.prefs.names)
  if ok and type(loaded) == "table" and loaded.version == 1 then
    names = loaded
  else
    report_failure("kep: " .. kep.prefs.names .. ": " .. (ok and "not what kep-names --lua makes" or tostring(loaded)))
  end
end

local function printable(bytes)
  return (bytes:gsub("[%c\127]", function(c) return ("\\x%02x"):format(c:byte()) end))
end

local function bits_shown(meaning, range)
  local words = {}
  for bit = 0, 8 * range:len() - 1 do
    local byte = range:range(range:len() - 1 - math.floor(bit / 8), 1):uint()
    if math.floor(byte / 2 ^ (bit % 8)) % 2 == 1 then table.insert(words, meaning.bits[bit] or "bit " .. bit) end
  end
  return #words == 0 and "none" or table.concat(words, ", ")
end

-- What a number is shown as, whose bytes are `range`. It is a Lua number or an Int64, and keeps its digits unless it is
-- scaled.
local function number_text(meaning, number, range)
  local plain = tonumber(tostring(number))
  local text = meaning.states and meaning.states[plain] or meaning.bits and bits_shown(meaning, range)
  if not text and (meaning.scale or meaning.offset) then
    local scaled = plain * tonumber(meaning.scale or "1") + tonumber(meaning.offset or "0")
    text = meaning.decimals and ("%." .. meaning.decimals .. "f"):format(scaled) or tostring(scaled)
  end
  return text or meaning.hex and "0x" .. tostring(range:bytes()) or tostring(number)
end

local function number_shown(meaning, number, range)
  return number_text(meaning, number, range) .. (meaning.unit and " " .. meaning.unit or "")
end

-- What a clock in the board's zone shows.
local function time_shown(seconds)
  local minutes = 0
  for _, change in ipairs(names.zone or {}) do
    if change[1] <= seconds then minutes = change[2] end
  end
  return os.date("!%Y/%m/%d %H:%M:%S", seconds + 60 * minutes)
end

local function field_shown(field, range)
  local part = range:range(field.start, field.size)
  if field.type == "string" then return printable(part:raw():match("^[^%z]*")) end
  if field.type == "bytes" then return tostring(part:bytes()):lower() end
  if field.type == "time" then return time_shown(part:uint()) end
  if field.type == "float" then return number_shown(field, part:float(), part) end
  local number = field.type .. (field.size > 4 and "64" or "")
  return number_shown(field, part[number](part), part)
end

local function fields_shown(meaning, range)
  local texts = {}
  for _, field in ipairs(meaning.fields) do
    if field.name then table.insert(texts, field.name .. " " .. field_shown(field, range)) end
  end
  return #texts > 0 and table.concat(texts, ", ") or range:len() .. " bytes"
end

-- Returns what a value's section is called. Learns the names that sections take from values, of which the first counts.
local function section_shown(run, item, value, meaning)
  if value.section == 0 then return "" end
  local where = item.sections[value.section]
  if item.named_by and not value.self_test then
    local of_item = run.sections[value.item] or {}
    run.sections[value.item] = of_item
    if value.key == item.named_by and not of_item[value.section] and value.kind ~= "buffer" and
       #(value.bytes or "") <= LONGEST_SECTION then
      of_item[value.section] = value.bytes and printable(value.bytes) or
        number_text(meaning or {}, value.number, value.range)
    end
    where = of_item[value.section]
  end
  return where or (item.label or "section") .. " " .. value.section
end

-- Returns a value as its names file has it, nil when it does not say.
local function value_shown(run, value)
  local item = names and names.items[value.name]
  if not item then return nil end
  local general, inner = item.keys, item.keys_in
  if value.self_test then general, inner = item.tests, item.tests_in end
  local meaning = inner[value.section] and inner[value.section][value.key] or general[value.key]
  local where = section_shown(run, item, value, meaning)
  if not meaning then return nil end
  local text
  if value.number then
    text = number_shown(meaning, value.number, value.range)
  elseif value.kind == "string" then
    text = printable(value.bytes)
  elseif meaning.fields and meaning.size == #value.bytes then
    text = fields_shown(meaning, value.range)
  else
    text = #value.bytes .. " bytes"
  end
  local what = meaning.name or "key " .. value.key
  return table.concat({ value.name, where, what }, " "):gsub("  ", " ") .. " " .. text
end

-- ---- requests

local function forbidden_sender(address)
  local first = tonumber(tostring(address):match("^(%d+)%."))
  return first and (first == 0 or (first >= 224 and first <= 239)) or tostring(address) == "255.255.255.255"
end

-- The rules in the order in which a board applies them; returns whether it takes the request.
local function judge_request(tree, size, request, source)
  local good = true
  local function drop(text) tree:add_proto_expert_info(e.dropped, "Dropped: " .. text); good = false end
  if size > 16 then drop("longer than 16 bytes") end
  if request.length ~= size then drop("the length field is " .. request.length .. ", the datagram " .. size) end
  if request.type > 3 then drop("the type is above 3") end
  if forbidden_sender(source) then drop("the sender's address cannot be one host's") end
  if not good then return false end
  if size < 16 then tree:add_proto_expert_info(e.noted, "What a short datagram does not bring is 0") end
  if request.port > 0xFFFF then
    tree:add_proto_expert_info(e.noted, "Only the low 16 bits of the port count: " .. request.port % 65536)
  end
  if request.sequence == 0 then tree:add_proto_expert_info(e.noted, "The identity gets the board's own next number") end
  if request.sequence == -1 then
    tree:add_proto_expert_info(e.futile, "A sequence of -1 means no request: it is never answered")
  elseif request.port % 65536 == 0 then
    tree:add_proto_expert_info(e.futile, "Nobody can be reached at port 0")
  end
  return true
end

local function dissect_request(tvb, pinfo, root)
  local tree = root:add(kep, tvb(), "kep request")
  pinfo.cols.protocol = "KEP"
  local function word(offset, field)
    if tvb:len() < offset + 4 then
      local bytes = tvb:len() > offset and tvb(offset):bytes() or ByteArray.new()
      local number = 0
      for i = 0, 3 do number = number * 256 + (i < bytes:len() and bytes:get_index(i) or 0) end
      return number
    end
    tree:add(field, tvb(offset, 4))
    return tvb(offset, 4):uint()
  end
  local request = { length = word(0, f.request_length), type = word(4, f.request_type),
                    sequence = word(8, f.request_sequence), port = word(12, f.request_port), frame = pinfo.number }
  if request.sequence >= 2 ^ 31 then request.sequence = request.sequence - 2 ^ 32 end
  local good = judge_request(tree, tvb:reported_len(), request, pinfo.src)
  pinfo.cols.info = "Request: " .. (REQUESTS[request.type] or "type " .. request.type) .. ", sequence " ..
    request.sequence .. ", to port " .. request.port % 65536 .. (good and "" or " (dropped)")
  local port = request.port % 65536
  if not good or pinfo.visited or port == 0 then return end
  local server = tostring(pinfo.src) .. ":" .. port
  requests[server] = requests[server] or {}
  table.insert(requests[server], request)
  server_ports[port] = true
  tcp_ports:add(port, kep)
end

-- ---- runs

local function damaged(offset, reason) error({ offset = offset, reason = reason }, 0) end

local function called(value)
  return ("item %d, section %d, key %d"):format(value.item, value.section, value.key)
end

-- Reads the fields of one message; `start` is where in the stream it begins.
local function reader(tvb, start, position)
  local self = {}
  function self.at_end() return position == tvb:len() end
  function self.offset() return start + position end
  function self.take(size)
    if tvb:len() - position < size then damaged(self.offset(), "a field runs past its message") end
    position = position + size
    return tvb:range(position - size, size)
  end
  function self.counted()
    local offset, count = self.offset(), self.take(2):uint()
    if tvb:len() - position < count then
      damaged(offset, ("a length of %d runs past its message"):format(count))
    end
    return self.take(count), tvb:range(position - count - 2, 2)
  end
  return self
end

local function raw(range) return range:len() > 0 and range:raw() or "" end

local function check_name(name, offset)
  if #name > LONGEST_NAME then damaged(offset, "an item's name of more than 19 bytes") end
end

local function read_identity(state, fields, tvb, tree)
  local offset = fields.offset()
  if tvb:len() ~= HEADER + 4 then
    damaged(offset, ("an identity of %d bytes instead of 4"):format(tvb:len() - HEADER))
  end
  tree:add(f.identity, fields.take(4))
  local request = state.run.request
  if request and request.sequence ~= 0 and request.sequence ~= tvb(8, 4):int() then
    tree:add_proto_expert_info(e.unasked, "The request's sequence is " .. request.sequence)
  end
end

local function read_entry(state, fields, tree)
  local offset = fields.offset()
  local range = fields.take(4)
  local index = range:int()
  if state.last_index and index <= state.last_index then
    damaged(offset, ("catalogue index %d does not ascend"):format(index))
  end
  local name_offset = fields.offset()
  local name = fields.counted()
  check_name(raw(name), name_offset)
  state.last_index = index
  state.run.catalogue[index] = raw(name)
  local entry = tree:add(kep, range, ("Item %d: %s"):format(index, printable(raw(name))))
  entry:add(f.entry_item, range)
  entry:add(f.entry_name, name, printable(raw(name)))
end

-- A value that has become complete; `state` knows what it means.
local function show_value(state, value, tree, record)
  if state.self_test and value.kind == "string" and value.item == TESTED_ITEM and value.section == 0 and
     value.key == 0 then
    state.tested = value.bytes
    record:add(f.tested, value.range, printable(value.bytes))
    return "self-test of " .. printable(value.bytes)
  end
  value.self_test = state.self_test
  value.name = (state.self_test and state.tested or not state.self_test and state.run.catalogue[value.item]) or ""
  local shown = value_shown(state.run, value)
  record:add(f.item, value.item):set_generated()
  record:add(f.name, printable(value.name)):set_generated()
  record:add(f.section, value.section):set_generated()
  record:add(f.key, value.key):set_generated()
  record:add(f.kind, value.kind):set_generated()
  if shown then record:add(f.shown, shown):set_generated() end
  if value.number then
    record:add(f[value.kind], value.range)
  else
    record:add(f.bytes, value.range)
    if value.kind == "string" then record:add_packet_field(f.text, value.range, ENC_UTF_8) end
  end
  local name = value.name == "" and value.item or printable(value.name)
  local content = value.number and tostring(value.number) or
    value.kind == "string" and '"' .. printable(value.bytes:sub(1, 60)) .. '"' or #value.bytes .. " bytes"
  return shown or ("%s %d/%d %s"):format(name, value.section, value.key, content)
end

-- Joins a record with the pieces before it, which a chain holds from the last to the first.
local function join(state, value, is_last, offset)
  local open = state.open
  if open and (open.kind ~= value.kind or open.item ~= value.item or open.section ~= value.section or
               open.key ~= value.key) then
    damaged(offset, ("a record of %s before the last piece of %s"):format(called(value), called(open)))
  end
  if value.bytes then value.total = #value.bytes + (open and open.total or 0) end
  if state.self_test and value.kind == "string" and value.item == TESTED_ITEM and value.section == 0 and
     value.key == 0 and value.total > LONGEST_NAME then
    damaged(offset, "an item's name of more than 19 bytes")
  end
  value.before = open
  state.open = not is_last and value or nil
  if not is_last or not open then return end
  local pieces, piece = {}, value
  while piece do
    table.insert(pieces, piece.bytes)
    piece = piece.before
  end
  for i = 1, math.floor(#pieces / 2) do pieces[i], pieces[#pieces + 1 - i] = pieces[#pieces + 1 - i], pieces[i] end
  value.bytes = table.concat(pieces)
  if #value.bytes > 0 then value.range = ByteArray.new(value.bytes, true):tvb("Joined value"):range() end
end

local function read_record(state, fields, tree, infos)
  local offset = fields.offset()
  local first = fields.take(1)
  local kind = KINDS[first:uint()]
  if not kind then damaged(offset, "unknown record type " .. first:uint()) end
  local item, section, key = fields.take(4), fields.take(4), fields.take(4)
  local value = { kind = kind, item = item:int(), section = section:int(), key = key:int() }
  local length
  if kind == "int" then
    value.range = fields.take(4)
    value.number = value.range:int()
  elseif kind == "long" then
    value.range = fields.take(8)
    value.number = value.range:int64()
  else
    value.range, length = fields.counted()
    value.bytes = raw(value.range)
  end
  local record = tree:add(kep, first, RECORDS[first:uint()])
  record:add(f.record, first)
  record:add(f.record_item, item)
  record:add(f.record_section, section)
  record:add(f.record_key, key)
  if length then
    record:add(f.record_length, length)
    record:add(f.record_bytes, value.range)
  end
  local is_last = first:uint() >= 0x80
  join(state, value, is_last, offset)
  local text = is_last and show_value(state, value, tree, record) or "piece of " .. called(value)
  record:set_text(RECORDS[first:uint()] .. ": " .. text)
  table.insert(infos, text)
  state.records = state.records + 1
end

-- Checks the header of the next message, and returns its size.
local function read_header(state, tvb)
  local start, size, type, sequence = state.bytes, tvb(0, 4):int(), tvb(4, 4):int(), tvb(8, 4):uint()
  if size < HEADER or size > LONGEST then
    damaged(start, ("a message length of %d is not within 12 to 1036"):format(size))
  end
  local expected = type == 2
  if state.messages == 0 then expected = type == 0 end
  if state.messages == 1 then
    expected = type == 1 or type == 2
    state.self_test = type ~= 1
  end
  if not expected then
    damaged(start + 4, ("a message of type %d as number %d of the run"):format(type, state.messages + 1))
  end
  if state.messages > 1 and sequence ~= (state.sequence + 1) % 2 ^ 32 then
    local wanted = (state.sequence + 1) % 2 ^ 32
    if wanted >= 2 ^ 31 then wanted = wanted - 2 ^ 32 end
    damaged(start + 8, ("sequence %d instead of %d"):format(tvb(8, 4):int(), wanted))
  end
  state.sequence = sequence
  return size, type
end

local function read_message(state, tvb, type, tree, infos)
  local fields = reader(tvb, state.bytes, HEADER)
  state.is_empty = type == 2 and fields.at_end()
  if type == 0 then read_identity(state, fields, tvb, tree) end
  while not fields.at_end() do
    if type == 1 then read_entry(state, fields, tree) else read_record(state, fields, tree, infos) end
  end
  state.messages = state.messages + 1
  state.bytes = state.bytes + tvb:len()
  local request = state.run.request
  if request and state.messages == 2 and (request.type == 3) ~= state.self_test then
    tree:add_proto_expert_info(e.unasked, "The request was for a " .. REQUESTS[request.type])
  end
end

local function copied(state)
  local copy = {}
  for key, value in pairs(state) do copy[key] = value end
  return copy
end

-- Returns why a run that ends here is cut short, nil when it is over as far as can be told.
local function lacking(state)
  if not state.is_empty or (state.last_index and state.messages < 4) then
    return "the stream ends before the run's last message"
  end
  local expected = 3 -- the identity, the catalogue, the end's
  for _, name in pairs(state.run.catalogue) do
    local item = names and names.items[name]
    if item and item.reports then expected = expected + 1 end
  end
  if state.last_index and state.messages < expected then
    return "fewer data messages than the items that report, and the last one"
  end
end

local function show_damage(state, tree, found, pinfo)
  state.damage = found
  tree:add(f.damage, ("%d: %s"):format(found.offset, found.reason)):set_generated()
  tree:add_proto_expert_info(e.damage, ("At byte %d of the run: %s"):format(found.offset, found.reason))
  pinfo.cols.info:append(" [damaged]")
end

local function show_counts(state, tree)
  tree:add(f.messages, state.messages):set_generated()
  tree:add(f.records, state.records):set_generated()
  tree:add(f.total, state.bytes):set_generated()
  tree:add(f.whole, not (state.open or state.damage or lacking(state))):set_generated()
end

-- Shows the message at `offset` of what has come. Returns its size; 0 behind a damage, where nothing can be told any
-- more; or nil and how many bytes are missing.
local function dissect_message(run, tvb, offset, pinfo, root)
  local place = ("%d:%d"):format(pinfo.number, tvb:offset() + offset)  -- unlike in a packet in what is reassembled
  if pinfo.visited and not seen[place] then return nil, DESEGMENT_ONE_MORE_SEGMENT end  -- as it was at first
  local state = copied(pinfo.visited and seen[place] or run.state)
  if state.damage then
    seen[place] = state
    root:add(kep, tvb(offset), "kep, behind the damage of its run")
    return 0
  end
  local left = tvb:len() - offset
  if left < HEADER then return nil, DESEGMENT_ONE_MORE_SEGMENT end
  local before = copied(state)
  local ok, size, kind = pcall(read_header, state, tvb(offset):tvb())
  if ok and size > left then return nil, size - left end
  local part = tvb(offset, ok and size or left)
  local tree = root:add(kep, part, "kep message")
  tree:add(f.length, tvb(offset, 4))
  tree:add(f.type, tvb(offset + 4, 4))
  tree:add(f.sequence, tvb(offset + 8, 4))
  if run.request then tree:add(f.request_frame, run.request.frame):set_generated() end
  if ok then
    local infos = {}
    local found
    ok, found = pcall(read_message, state, part:tvb(), kind, tree, infos)
    local what = TYPES[kind] .. (#infos > 0 and ": " .. table.concat(infos, "; ", 1, math.min(#infos, 8)) or
                                 state.is_empty and ", empty" or "") .. (#infos > 8 and "; .." or "")
    tree:set_text(("kep %s, sequence %d"):format(TYPES[kind], tvb(offset + 8, 4):int()))
    pinfo.cols.info:append((run.shown == pinfo.number and " | " or "") .. what)
    run.shown = pinfo.number
    if not ok then size = found end
  end
  if not ok then
    if type(size) ~= "table" then error(size, 0) end  -- no damage, but an error of this file
    show_damage(state, tree, size, pinfo)
    size = 0
  end
  show_counts(state, tree)
  if not pinfo.visited then
    seen[place] = before
    run.state, run.last_frame = state, pinfo.number
  end
  return size
end

local function dissect_ack(run, tvb, pinfo, root)
  local tree = root:add(kep, tvb(), "kep acknowledgement")
  tree:add(f.ack, tvb())
  pinfo.cols.info = ("Acknowledgement, %d bytes"):format(tvb:len())
  if not pinfo.visited then
    seen[pinfo.number] = { message = run.last_frame, early = run.acknowledged == run.last_frame }
    run.acknowledged = run.last_frame
  end
  local ack = seen[pinfo.number]
  if ack.message then tree:add(f.ack_frame, ack.message):set_generated() end
  if tvb:len() > LONGEST_ACK then
    tree:add_proto_expert_info(e.ack, "The board takes at most 16 bytes; the rest acknowledges the next message")
  elseif not ack.message or ack.early then
    tree:add_proto_expert_info(e.ack, "No message waits for it: it acknowledges the next one")
  end
end

-- The latest request of the server that this packet goes to or comes from, and was asked of the other.
local function request_of(pinfo, server, port)
  local asked = requests[tostring(server) .. ":" .. port]
  for i = asked and #asked or 0, 1, -1 do
    if asked[i].frame < pinfo.number then return asked[i] end
  end
end

-- The runs between the two ends of a packet, in turn.
local function runs_of(pinfo)
  local ends = { pinfo.src_port .. " " .. tostring(pinfo.src), pinfo.dst_port .. " " .. tostring(pinfo.dst) }
  table.sort(ends)
  local key = ends[1] .. " " .. ends[2]
  runs[key] = runs[key] or {}
  return runs[key]
end

-- The run that a packet belongs to, nil if none has begun.
local function run_at(pinfo)
  local between = runs_of(pinfo)
  for i = #between, 1, -1 do
    if between[i].first <= pinfo.number then return between[i] end
  end
end

-- Whether a connection between the ends of an earlier one has begun: its identity comes, and another request asks for it.
local function is_next(run, request, tvb)
  return run.state.messages > 0 and request ~= run.request and tvb:len() >= HEADER and tvb(0, 4):int() == HEADER + 4 and
    tvb(4, 4):int() == 0
end

local function dissect_tcp(tvb, pinfo, root)
  local run, request = run_at(pinfo), request_of(pinfo, pinfo.dst, pinfo.dst_port)
  if not run or (not pinfo.visited and is_next(run, request, tvb)) then
    run = { board = pinfo.src_port, request = request, first = pinfo.number, catalogue = {}, sections = {},
            state = { messages = 0, records = 0, bytes = 0 } }
    run.state.run = run
    table.insert(runs_of(pinfo), run)
  end
  pinfo.cols.protocol = "KEP"
  if pinfo.src_port ~= run.board then
    dissect_ack(run, tvb, pinfo, root)
    return tvb:len()
  end
  pinfo.cols.info = ""
  run.shown = nil
  local offset = 0
  while offset < tvb:len() do
    local size, missing = dissect_message(run, tvb, offset, pinfo, root)
    if not size then
      pinfo.desegment_offset, pinfo.desegment_len = offset, missing
      return tvb:len()
    end
    if size == 0 then break end
    offset = offset + size
  end
  return tvb:len()
end

function kep.dissector(tvb, pinfo, root)
  if pinfo.port_type == 3 then  -- UDP
    return dissect_request(tvb, pinfo, root)
  end
  return dissect_tcp(tvb, pinfo, root)
end

-- Says where a connection ends that its run was not over.
local ending = Proto("kepend", "kep end of a run")
function ending.dissector(tvb, pinfo, root)
  local fin = tcp_fin()
  local run = fin and fin.value and run_at(pinfo)
  if not run or pinfo.src_port ~= run.board or run.state.damage then return end
  local state = run.state
  local size = tcp_seq().value + tcp_len().value - 1
  local reason
  if size > state.bytes then
    reason = "the stream ends inside a message"
  elseif state.open then
    reason = "the last piece is missing of " .. called(state.open)
  else
    reason = lacking(state)
  end
  if not reason then return end
  show_damage({}, root:add(kep, "kep: the run is cut short"), { offset = size, reason = reason }, pinfo)
end
register_postdissector(ending)

-- ---- configuration queries

local c = {
  section = ProtoField.string("kepconfig.section", "Section"),
  key = ProtoField.string("kepconfig.key", "Key"),
  default = ProtoField.string("kepconfig.default", "Default"),
  value = ProtoField.string("kepconfig.value", "Value"),
  query_frame = ProtoField.framenum("kepconfig.query", "Query in", base.NONE, frametype.REQUEST),
}
local c_wrong = ProtoExpert.new("kepconfig.wrong", "Wrong", expert.group.PROTOCOL, expert.severity.WARN)
conf.fields = { c.section, c.key, c.default, c.value, c.query_frame }
conf.experts = { c_wrong }

local function dissect_query(tvb, pinfo, tree)
  local section, key = raw(tvb()):match("^=>config ([^ ]+) ([^ ]+) ")
  if not section or tvb:len() > LONGEST_QUERY then
    tree:add_proto_expert_info(c_wrong, section and "A query of more than 1000 bytes" or
                               "Not of the form =>config SECTION KEY DEFAULT")
  end
  if not section then return end
  local at = 9
  tree:add_packet_field(c.section, tvb(at, #section), ENC_UTF_8)
  at = at + #section + 1
  tree:add_packet_field(c.key, tvb(at, #key), ENC_UTF_8)
  at = at + #key + 1
  tree:add_packet_field(c.default, tvb(at, tvb:len() - at), ENC_UTF_8)
  pinfo.cols.info = ("Query: %s %s, default %s"):format(printable(section), printable(key),
                                                        printable(raw(tvb(at, tvb:len() - at))))
  if not pinfo.visited then queries[tostring(pinfo.src)] = pinfo.number end
end

local function dissect_answer(tvb, pinfo, tree)
  if not pinfo.visited then seen[pinfo.number] = queries[tostring(pinfo.dst)] end
  tree:add_packet_field(c.value, tvb(), ENC_UTF_8)
  pinfo.cols.info = "Answer: " .. printable(raw(tvb()))
  if seen[pinfo.number] then tree:add(c.query_frame, seen[pinfo.number]):set_generated() end
  if tvb:len() > LONGEST_QUERY then tree:add_proto_expert_info(c_wrong, "The board takes the first 1000 bytes") end
end

function conf.dissector(tvb, pinfo, root)
  pinfo.cols.protocol = "KEP"
  local tree = root:add(conf, tvb(), "kep configuration")
  if pinfo.src_port == 8998 or pinfo.dst_port == 8999 then
    dissect_query(tvb, pinfo, tree)
  else
    dissect_answer(tvb, pinfo, tree)
  end
end

-- ---- registration

local function register()
  if request_port ~= kep.prefs.port then
    if request_port then udp_ports:remove(request_port, kep) end
    request_port = kep.prefs.port
    udp_ports:add(request_port, kep)
  end
  load_names()
end

local function reset()
  requests, runs, seen, queries = {}, {}, {}, {}
  for port in pairs(server_ports) do tcp_ports:remove(port, kep) end  -- in another capture they are somebody else's
  server_ports = {}
end

kep.init = reset
kep.prefs_changed = register
reset()
register()
udp_ports:add(8998, conf)
udp_ports:add(8999, conf)
tcp_ports:add_for_decode_as(kep)
