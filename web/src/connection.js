// The page's live channel to the server (WebSocket subprotocol korvan.web.v1): JSON messages
// each way, reconnecting with a growing pause when the server goes away.
export const SUBPROTOCOL = 'korvan.web.v1';

export function connect({ onMessage, onState }) {
  let socket = null;
  let pause = 500;

  const open = () => {
    const scheme = location.protocol === 'https:' ? 'wss' : 'ws';
    socket = new WebSocket(`${scheme}://${location.host}/`, SUBPROTOCOL);
    socket.onopen = () => {
      pause = 500;
      onState(true);
    };
    socket.onmessage = (event) => {
      let message;
      try {
        message = JSON.parse(event.data);
      } catch {
        return;
      }
      onMessage(message);
    };
    socket.onclose = () => {
      onState(false);
      setTimeout(open, pause);
      pause = Math.min(pause * 2, 5000);
    };
  };
  open();

  return {
    send(message) {
      if (socket && socket.readyState === WebSocket.OPEN) socket.send(JSON.stringify(message));
    },
  };
}
