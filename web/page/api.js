// The gateway's API: requests with the tab's token, and result streams read line by line.

const TOKEN_KEY = 'recording-search-token';

export const token = {
  get: () => sessionStorage.getItem(TOKEN_KEY),
  set: (value) => sessionStorage.setItem(TOKEN_KEY, value),
  clear: () => sessionStorage.removeItem(TOKEN_KEY),
};

// A refused request: the HTTP status, the gateway's own message and the field at fault.
export class ApiError extends Error {
  constructor(status, message, field = '') {
    super(message);
    this.status = status;
    this.field = field;
  }
}

export async function request(method, path, body, signal) {
  let response;
  try {
    response = await fetch(`/api/v1/${path}`, {
      signal,
      method,
      headers: {
        Authorization: `Bearer ${token.get()}`,
        ...(body === undefined ? {} : { 'Content-Type': 'application/json' }),
      },
      body: body === undefined ? undefined : JSON.stringify(body),
      cache: 'no-store',
    });
  } catch (error) {
    if (signal?.aborted) throw new ApiError(-1, 'stopped');
    throw new ApiError(0, 'the gateway cannot be reached');
  }
  if (!response.ok) {
    let message = response.statusText;
    let field = '';
    try { ({ error: message, field = '' } = await response.json()); } catch { /* not JSON: keep the status text */ }
    throw new ApiError(response.status, message, field);
  }
  return response;
}

// Calls onLine with each JSON line as it arrives; resolves when the stream ends, or when
// `signal` aborts it (closing the stream ends the search on the device).
export async function stream(path, body, onLine, signal) {
  const response = await request('POST', path, body, signal);
  const reader = response.body.pipeThrough(new TextDecoderStream()).getReader();
  let pending = '';
  for (;;) {
    let chunk;
    try {
      chunk = await reader.read();
    } catch {
      if (signal?.aborted) return;
      throw new ApiError(0, 'the gateway cannot be reached');
    }
    if (chunk.done) break;
    pending += chunk.value;
    const lines = pending.split('\n');
    pending = lines.pop();
    for (const line of lines) if (line) onLine(JSON.parse(line));
  }
}
