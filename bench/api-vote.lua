-- wrk script: votes that each change something. $RD_USERS and $RD_ITEMS are
-- comma-separated ids; every wrk thread votes with users of its own, walking
-- all (user, item) pairs and turning each pair's vote over on every round, so
-- each request after the first round replaces a vote (a real write, never a
-- refused repeat). A pair comes back only after users-per-thread x items
-- requests, far more than the requests one thread has in flight.
local function split(s)
  local out = {}
  for v in string.gmatch(s or "", "[^,]+") do out[#out + 1] = v end
  return out
end

local users, items = split(os.getenv("RD_USERS")), split(os.getenv("RD_ITEMS"))
local threads = 0

function setup(thread)
  thread:set("index", threads)
  threads = threads + 1
end

function init(args)
  local per = math.floor(#users / 2)
  mine = {}
  for i = 1, per do mine[i] = users[index * per + i] end
  n = 0
end

function request()
  local u = mine[n % #mine + 1]
  local round = math.floor(n / #mine)
  local item = items[round % #items + 1]
  local liked = math.floor(round / #items) % 2 == 0
  n = n + 1
  local body = string.format('{"cmd":"rd_like_item","item_id":"%s","user_id":"%s","is_liked":%s}',
    item, u, liked and "true" or "false")
  return wrk.format("POST", nil,
    {["Content-Type"] = "application/json", ["HTTP_ACCESS_TOKEN"] = "anonymous"}, body)
end
