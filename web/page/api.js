// The gateway's API: requests with the tab's token, and result streams read line by line.

const TOKEN_KEY = 'recording-search-token';

export const token = {
  get: () => sessionStorage.getItem(TOKEN_KEY),
  set: (value) => sessionStorage.setItem(TOKEN_KEY, value),
  clear: () => sessionStorage.removeItem(TOKEN_KEY),
};

// A refused request: the HTTP status and the gateway's own message.
export class ApiError extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

export async function request(method, path, body) {
  let response;
  try {
    response = await fetch(`/api/v1/${path}`, {
      method,
      headers: {
        Authorization: `Bearer ${token.get()}`,
        ...(body === undefined ? {} : { 'Content-Type': 'application/json' }),
      },
      body: body === undefined ? undefined : JSON.stringify(body),
      cache: 'no-store',
    });
  } catch {
    throw new ApiError(0, 'the gateway cannot be reached');
  }
  if (!response.ok) {
    let message = response.statusText;
    try { message = (await response.json()).error; } catch { /* not JSON: keep the status text */ }
    throw new ApiError(response.status, message);
  }
  return response;
}

// Calls onLine with each JSON line as it arrives; resolves when the stream ends.
export async function stream(path, body, onLine) {
  const response = await request('POST', path, body);
  const reader = response.body.pipeThrough(new TextDecoderStream()).getReader();
  let pending = '';
  for (;;) {
    let chunk;
    try {
      chunk = await reader.read();
    } catch {
      throw new ApiError(0, 'the gateway cannot be reached');
    }
    if (chunk.done) break;
    pending += chunk.value;
    const lines = pending.split('\n');
    pending = lines.pop();
    for (const line of lines) if (line) onLine(JSON.parse(line));
  }
}
